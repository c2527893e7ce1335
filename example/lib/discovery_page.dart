import 'dart:async';

import 'package:flutter/material.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'device_page.dart';
import 'texts.dart';

/// The adapter, and the devices that are known and found.
class DiscoveryPage extends StatefulWidget {
  const DiscoveryPage({super.key});

  @override
  State<DiscoveryPage> createState() => _DiscoveryPageState();
}

class _DiscoveryPageState extends State<DiscoveryPage> {
  static const BluetoothAdapter _adapter = BluetoothAdapter();
  static const BluetoothDiscovery _discovery = BluetoothDiscovery();

  late final StreamSubscription<Object?> _changes;
  String? _problem;
  String? _adapterName;
  bool _isAvailable = false;
  bool _isOn = false;
  bool _isDiscovering = false;
  bool _isBusy = false;
  int _visits = 0;

  @override
  void initState() {
    super.initState();
    // This channel tells of every change of the adapter, also of a discovery
    // that ends by itself or is another program's. BluetoothAdapter.states
    // leaves out what changes no state.
    _changes = BluetoothChannels.stateEvents
        .listen((Object? state) => unawaited(_try(_look)));
    unawaited(_try(_load));
  }

  @override
  void dispose() {
    unawaited(_changes.cancel());
    super.dispose();
  }

  /// Runs what asks the plug-in, and shows what it throws.
  Future<void> _try(Future<void> Function() body) async {
    try {
      await body();
    } on BluetoothException catch (error) {
      if (mounted) setState(() => _problem = describe(error));
    }
  }

  Future<void> _load() async {
    final bool isAvailable = await _adapter.isAvailable();
    final String? name = await _adapter.getName();
    if (!mounted) return;
    setState(() {
      _isAvailable = isAvailable;
      _adapterName = name;
      if (!isAvailable) {
        _problem = 'There is no Bluetooth adapter. ${askDoctor()}';
      }
    });
    await _look();
  }

  /// Asks what the adapter does now. Neither request blocks.
  Future<void> _look() async {
    final bool isOn = await _adapter.isEnabled();
    final bool isDiscovering = await _discovery.isDiscovering();
    if (!mounted) return;
    setState(() {
      _isOn = isOn;
      _isDiscovering = isDiscovering;
    });
  }

  Future<void> _toggleDiscovery() async {
    final bool starts = !_isDiscovering;
    setState(() => _isBusy = true);
    await _try(() async {
      final bool done =
          starts ? await _discovery.start() : await _discovery.cancel();
      if (!mounted) return;
      setState(() {
        _problem = done ? null : 'The adapter refused. ${askDoctor()}';
      });
      await _look();
    });
    if (mounted) setState(() => _isBusy = false);
  }

  /// Shows the device's page, and then the list anew: a device whose bond was
  /// removed there is gone, which is not reported.
  Future<void> _open(BluetoothDevice device) async {
    await Navigator.of(context).push(
      MaterialPageRoute<void>(
        builder: (BuildContext context) => DevicePage(device),
      ),
    );
    if (mounted) setState(() => _visits++);
  }

  @override
  Widget build(BuildContext context) {
    final String? problem = _problem;
    final String name = _adapterName ?? 'Bluetooth';
    final bool canToggle = _isAvailable && _isOn && !_isBusy;
    return Scaffold(
      appBar: AppBar(
        title: Text(_isAvailable ? '$name is ${_isOn ? 'on' : 'off'}' : name),
        actions: <Widget>[
          TextButton(
            onPressed: canToggle ? _toggleDiscovery : null,
            child: Text(_isDiscovering ? 'Stop' : 'Discover'),
          ),
        ],
      ),
      body: Column(
        children: <Widget>[
          if (_isDiscovering) const LinearProgressIndicator(),
          if (problem != null) ListTile(title: Text(problem)),
          Expanded(
            child: DeviceList(key: ValueKey<int>(_visits), onTap: _open),
          ),
        ],
      ),
    );
  }
}

/// All devices, each as it was reported last.
class DeviceList extends StatelessWidget {
  const DeviceList({super.key, required this.onTap});

  final void Function(BluetoothDevice device) onTap;

  @override
  Widget build(BuildContext context) {
    return StreamBuilder<List<BluetoothDevice>>(
      stream: const BluetoothDiscovery().watchDevices(),
      builder: (
        BuildContext context,
        AsyncSnapshot<List<BluetoothDevice>> snapshot,
      ) {
        final List<BluetoothDevice> devices =
            snapshot.data ?? const <BluetoothDevice>[];
        return ListView.builder(
          itemCount: devices.length,
          itemBuilder: (BuildContext context, int index) => DeviceTile(
            devices[index],
            onTap: () => onTap(devices[index]),
          ),
        );
      },
    );
  }
}

/// One device of the list.
class DeviceTile extends StatelessWidget {
  const DeviceTile(this.device, {super.key, required this.onTap});

  final BluetoothDevice device;
  final VoidCallback onTap;

  @override
  Widget build(BuildContext context) {
    final String? name = device.name;
    final int? rssi = device.rssi;
    return ListTile(
      leading: Icon(device.isBonded ? Icons.link : Icons.bluetooth),
      title: Text(name ?? device.address),
      subtitle: name == null ? null : Text(device.address),
      trailing: rssi == null ? null : Text('$rssi dBm'),
      onTap: onTap,
    );
  }
}
