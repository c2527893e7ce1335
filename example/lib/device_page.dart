import 'dart:async';

import 'package:flutter/material.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'terminal_page.dart';

/// One device: its bond, and the prober's readings of it.
class DevicePage extends StatefulWidget {
  const DevicePage(this.device, {super.key});

  final BluetoothDevice device;

  @override
  State<DevicePage> createState() => _DevicePageState();
}

class _DevicePageState extends State<DevicePage> {
  static const BluetoothBonding _bonding = BluetoothBonding();
  static const BluetoothProber _prober = BluetoothProber();

  late BluetoothDevice _device = widget.device;
  late bool _isBonded = widget.device.isBonded;
  late final StreamSubscription<BluetoothDevice> _reports;
  late final StreamSubscription<Map<String, int>> _readings;
  int? _reading;
  String _message = '';
  bool _isBusy = false;

  @override
  void initState() {
    super.initState();
    _reports = const BluetoothDiscovery()
        .devices
        .where((BluetoothDevice device) => device.address == _device.address)
        .listen((BluetoothDevice device) {
      setState(() {
        _device = device;
        _isBonded = device.isBonded;
      });
    });
    _readings = _prober.readings.listen((Map<String, int> readings) {
      setState(() => _reading = readings[_device.address]);
    });
  }

  @override
  void dispose() {
    unawaited(_reports.cancel());
    unawaited(_readings.cancel());
    super.dispose();
  }

  /// Shows what is going on, lets the window draw that, and only then asks for
  /// something that may block.
  Future<void> _run(
    String message,
    Future<bool> Function(String address) request,
  ) async {
    setState(() {
      _isBusy = true;
      _message = '$message ...';
    });
    await Future<void>.delayed(const Duration(milliseconds: 100));
    final bool done = await request(_device.address);
    // A removed device is not reported.
    final bool bonded = await _bonding.isBonded(_device.address);
    if (!mounted) return;
    setState(() {
      _isBusy = false;
      _isBonded = bonded;
      _message = done ? '$message: done' : '$message: refused';
    });
  }

  Future<void> _setSecret(String secret) async {
    await _prober.setSecret(secret);
    if (!mounted) return;
    setState(() => _message = 'Devices of certain names are asked from now on');
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
    final int? reading = _reading;
    return Scaffold(
      appBar: AppBar(title: Text(_device.name ?? _device.address)),
      body: ListView(
        padding: const EdgeInsets.all(16),
        children: <Widget>[
          Text('Address: ${_device.address}'),
          Text('Signal: ${rssi == null ? 'unknown' : '$rssi dBm'}'),
          Text('Connected: ${_device.isConnected ? 'yes' : 'no'}'),
          Text('Bonded: ${_isBonded ? 'yes' : 'no'}'),
          Text('Reading: ${reading == null ? 'none' : '$reading dBm'}'),
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
            onSubmitted: _setSecret,
          ),
          const SizedBox(height: 16),
          Text(_message),
        ],
      ),
    );
  }
}
