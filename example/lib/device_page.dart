import 'dart:async';

import 'package:flutter/material.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'terminal_page.dart';
import 'texts.dart';

/// One device: its bond, and the prober's readings of it.
class DevicePage extends StatefulWidget {
  const DevicePage(this.device, {super.key});

  /// What was known of the device when it was chosen.
  final BluetoothDevice device;

  @override
  State<DevicePage> createState() => _DevicePageState();
}

class _DevicePageState extends State<DevicePage> {
  static const BluetoothBonding _bonding = BluetoothBonding();
  static const BluetoothProber _prober = BluetoothProber();

  late final StreamSubscription<BluetoothDevice> _reports;
  late BluetoothDevice _device = widget.device;
  late bool _isBonded = widget.device.isBonded;
  String _message = '';
  bool _isBusy = false;

  @override
  void initState() {
    super.initState();
    _reports = const BluetoothDiscovery().devices.listen(_follow);
  }

  @override
  void dispose() {
    unawaited(_reports.cancel());
    super.dispose();
  }

  void _follow(BluetoothDevice device) {
    if (device.address != _device.address) return;
    setState(() {
      _device = device;
      _isBonded = device.isBonded;
    });
  }

  /// Shows what is going on, lets the window draw that, and only then asks for
  /// something that may block. The user may have left by then.
  Future<void> _run(
    String what,
    Future<bool> Function(String address) request,
  ) async {
    final String address = _device.address;
    setState(() {
      _isBusy = true;
      _message = '$what ...';
    });
    await Future<void>.delayed(const Duration(milliseconds: 100));
    if (!mounted) return;
    try {
      final bool done = await request(address);
      // A device whose bond is removed is not reported.
      final bool isBonded = await _bonding.isBonded(address);
      if (!mounted) return;
      setState(() {
        _isBonded = isBonded;
        _message =
            done ? '$what: done' : '$what: refused. ${askDoctor(address)}';
      });
    } on BluetoothException catch (error) {
      if (!mounted) return;
      setState(() => _message = describe(error, address));
    }
    setState(() => _isBusy = false);
  }

  Future<void> _setSecret(String secret) async {
    String message = secret.isEmpty
        ? 'No device is asked any more.'
        : 'Devices of certain names are asked from now on.';
    try {
      await _prober.setSecret(secret);
    } on BluetoothException catch (error) {
      message = describe(error);
    }
    if (mounted) setState(() => _message = message);
  }

  Future<void> _openTerminal() {
    return Navigator.of(context).push(
      MaterialPageRoute<void>(
        builder: (BuildContext context) => TerminalPage(_device.address),
      ),
    );
  }

  @override
  Widget build(BuildContext context) {
    final int? rssi = _device.rssi;
    return Scaffold(
      appBar: AppBar(title: Text(_device.name ?? _device.address)),
      body: ListView(
        padding: const EdgeInsets.all(16),
        children: <Widget>[
          Text('Address: ${_device.address}'),
          Text('Signal: ${rssi == null ? 'unknown' : '$rssi dBm'}'),
          Text('Connected: ${_device.isConnected ? 'yes' : 'no'}'),
          Text('Bonded: ${_isBonded ? 'yes' : 'no'}'),
          StreamBuilder<Map<String, int>>(
            stream: _prober.readings,
            builder: (
              BuildContext context,
              AsyncSnapshot<Map<String, int>> snapshot,
            ) {
              final int? reading = snapshot.data?[_device.address];
              return Text(
                'Reading: ${reading == null ? 'none' : '$reading dBm'}',
              );
            },
          ),
          const SizedBox(height: 16),
          Wrap(
            spacing: 8,
            runSpacing: 8,
            children: <Widget>[
              FilledButton(
                onPressed: _isBusy || _isBonded
                    ? null
                    : () => _run('Bonding', _bonding.bond),
                child: const Text('Bond'),
              ),
              FilledButton(
                onPressed: _isBusy || !_isBonded
                    ? null
                    : () => _run('Removing the bond', _bonding.removeBond),
                child: const Text('Remove bond'),
              ),
              FilledButton(
                onPressed: _isBusy ? null : _openTerminal,
                child: const Text('Terminal'),
              ),
            ],
          ),
          TextField(
            decoration: const InputDecoration(labelText: "Prober's secret"),
            obscureText: true,
            enableSuggestions: false,
            autocorrect: false,
            onSubmitted: _setSecret,
          ),
          const SizedBox(height: 16),
          Text(_message),
        ],
      ),
    );
  }
}
