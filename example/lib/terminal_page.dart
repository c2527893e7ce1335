import 'dart:async';

import 'package:flutter/material.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

/// A serial terminal on channel 1 of a device.
class TerminalPage extends StatefulWidget {
  const TerminalPage(this.address, {super.key});

  final String address;

  @override
  State<TerminalPage> createState() => _TerminalPageState();
}

class _TerminalPageState extends State<TerminalPage> {
  final List<String> _lines = <String>[];
  final TextEditingController _input = TextEditingController();
  BluetoothConnection? _connection;
  bool _isBusy = false;

  @override
  void dispose() {
    unawaited(_connection?.close());
    _connection = null;
    _input.dispose();
    super.dispose();
  }

  void _show(String line) {
    if (mounted) setState(() => _lines.add(line));
  }

  Future<void> _connect() async {
    setState(() => _isBusy = true);
    _show('connecting to ${widget.address}');
    // Nothing is drawn while the request runs.
    await Future<void>.delayed(const Duration(milliseconds: 100));
    try {
      final BluetoothConnection connection =
          await BluetoothConnection.open(widget.address);
      if (!mounted) {
        await connection.close();
        return;
      }
      _connection = connection;
      connection.lines.listen(_show, onDone: () => unawaited(_disconnect()));
      _show('connected');
    } on BluetoothException catch (error) {
      _show(
        error.code == BluetoothException.unreachable
            ? 'device not reachable'
            : error.message,
      );
    }
    if (mounted) setState(() => _isBusy = false);
  }

  /// Runs for the user's button and for the device's end of stream.
  Future<void> _disconnect() async {
    final BluetoothConnection? connection = _connection;
    if (connection == null) return;
    _connection = null;
    await connection.close();
    _show('disconnected');
  }

  Future<void> _send(String text) async {
    final BluetoothConnection? connection = _connection;
    if (connection == null) return;
    _input.clear();
    _show('> $text');
    if (!await connection.writeText('$text\r\n')) {
      _show('not sent');
      await _disconnect();
    }
  }

  @override
  Widget build(BuildContext context) {
    final bool isConnected = _connection != null;
    return Scaffold(
      appBar: AppBar(
        title: Text(widget.address),
        actions: <Widget>[
          TextButton(
            onPressed: _isBusy ? null : (isConnected ? _disconnect : _connect),
            child: Text(isConnected ? 'Disconnect' : 'Connect'),
          ),
        ],
      ),
      body: Column(
        children: <Widget>[
          Expanded(
            child: ListView.builder(
              padding: const EdgeInsets.all(16),
              itemCount: _lines.length,
              itemBuilder: (BuildContext context, int index) =>
                  Text(_lines[index]),
            ),
          ),
          Padding(
            padding: const EdgeInsets.all(16),
            child: TextField(
              controller: _input,
              enabled: isConnected,
              onSubmitted: _send,
            ),
          ),
        ],
      ),
    );
  }
}
