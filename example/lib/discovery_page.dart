import 'dart:async';

import 'package:flutter/foundation.dart' show kDebugMode;
import 'package:flutter/material.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'device_page.dart';

/// The adapter, and the devices that are known and found.
class DiscoveryPage extends StatefulWidget {
  const DiscoveryPage({super.key});

  @override
  State<DiscoveryPage> createState() => _DiscoveryPageState();
}

class _DiscoveryPageState extends State<DiscoveryPage> {
  static const BluetoothAdapter _adapter = BluetoothAdapter();
  static const BluetoothDiscovery _discovery = BluetoothDiscovery();

  final Map<String, BluetoothDevice> _devices = <String, BluetoothDevice>{};
  late final StreamSubscription<BluetoothAdapterState> _states;
  late final StreamSubscription<BluetoothDevice> _found;
  String _adapterName = '';
  String? _problem;
  bool _isOn = false;
  bool _isDiscovering = false;

  @override
  void initState() {
    super.initState();
    // Listen first, ask for what is known then: nothing falls between.
    _states = _adapter.states.listen((BluetoothAdapterState state) {
      setState(() => _isOn = state == BluetoothAdapterState.on);
    });
    _found = _discovery.devices.listen((BluetoothDevice device) {
      setState(() => _devices[device.address] = device);
    });
    unawaited(_load());
  }

  @override
  void dispose() {
    unawaited(_states.cancel());
    unawaited(_found.cancel());
    super.dispose();
  }

  Future<void> _load() async {
    try {
      if (kDebugMode) await BluetoothConnection.closeForgotten();
      final bool available = await _adapter.isAvailable();
      final String? name = await _adapter.getName();
      final bool discovering = await _discovery.isDiscovering();
      final List<BluetoothDevice> known = await _discovery.knownDevices();
      if (!mounted) return;
      setState(() {
        _problem = available ? null : 'No Bluetooth adapter';
        _adapterName = name ?? '';
        _isDiscovering = discovering;
        for (final BluetoothDevice device in known) {
          _devices[device.address] = device;
        }
      });
    } on BluetoothException catch (error) {
      if (mounted) setState(() => _problem = error.message);
    }
  }

  Future<void> _toggleDiscovery() async {
    final bool starts = !_isDiscovering;
    final bool done =
        starts ? await _discovery.start() : await _discovery.cancel();
    if (!mounted) return;
    setState(() {
      _problem = done ? null : 'The adapter refused';
      if (done) _isDiscovering = starts;
    });
  }

  Future<void> _open(BluetoothDevice device) {
    return Navigator.of(context).push(
      MaterialPageRoute<void>(
        builder: (BuildContext context) => DevicePage(device),
      ),
    );
  }

  @override
  Widget build(BuildContext context) {
    final List<BluetoothDevice> devices = _devices.values.toList();
    final String state = _isOn ? 'on' : 'off';
    return Scaffold(
      appBar: AppBar(title: Text('Adapter $_adapterName is $state')),
      floatingActionButton: FloatingActionButton.extended(
        onPressed: _isOn ? _toggleDiscovery : null,
        label: Text(_isDiscovering ? 'Stop' : 'Discover'),
      ),
      body: Column(
        children: <Widget>[
          if (_problem != null) ListTile(title: Text(_problem!)),
          if (_isDiscovering) const LinearProgressIndicator(),
          Expanded(
            child: ListView.builder(
              itemCount: devices.length,
              itemBuilder: (BuildContext context, int index) {
                return DeviceTile(
                  devices[index],
                  onTap: () => _open(devices[index]),
                );
              },
            ),
          ),
        ],
      ),
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
    final int? rssi = device.rssi;
    return ListTile(
      leading: Icon(device.isBonded ? Icons.link : Icons.bluetooth),
      title: Text(device.name ?? device.address),
      subtitle: Text(device.address),
      trailing: rssi == null ? null : Text('$rssi dBm'),
      onTap: onTap,
    );
  }
}
