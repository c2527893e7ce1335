import 'dart:async';

import 'package:flutter/material.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'texts.dart';

/// A serial terminal on channel 1 of a device.
class TerminalPage extends StatefulWidget {
  const TerminalPage(this.address, {super.key});

  /// The device's address.
  final String address;

  @override
  State<TerminalPage> createState() => _TerminalPageState();
}

class _TerminalPageState extends State<TerminalPage> {
  /// How many lines are kept.
  static const int _limit = 1000;

  // The newest first, as the list below shows them.
  final List<String> _lines = <String>[];
  final TextEditingController _input = TextEditingController();
  final FocusNode _inputFocus = FocusNode();
  BluetoothConnection? _connection;
  bool _isBusy = false;

  @override
  void dispose() {
    final BluetoothConnection? connection = _connection;
    if (connection != null) unawaited(_close(connection));
    _input.dispose();
    _inputFocus.dispose();
    super.dispose();
  }

  void _show(String line) {
    if (!mounted) return;
    setState(() {
      _lines.insert(0, line);
      if (_lines.length > _limit) _lines.removeLast();
    });
  }

  void _showFailure(BluetoothException error) =>
      _show(describe(error, widget.address));

  /// Shows what is going on, lets the window draw that, and only then opens the
  /// connection, which may block. The user may have left by then, or while the
  /// connection was made: it belongs to nobody in that case, and is closed.
  Future<void> _connect() async {
    setState(() => _isBusy = true);
    _show('connecting to ${widget.address}');
    await Future<void>.delayed(const Duration(milliseconds: 100));
    if (!mounted) return;
    try {
      final BluetoothConnection connection =
          await BluetoothConnection.open(widget.address);
      if (!mounted) {
        await _close(connection);
        return;
      }
      connection.lines.listen(
        _show,
        onDone: () => unawaited(_disconnect(connection)),
      );
      setState(() => _connection = connection);
      _show('connected');
      _inputFocus.requestFocus();
    } on BluetoothException catch (error) {
      _showFailure(error);
    }
    if (mounted) setState(() => _isBusy = false);
  }

  /// Runs for the user's button, for a failed write, and for the device's end
  /// of stream; the first of them counts.
  Future<void> _disconnect(BluetoothConnection connection) async {
    if (!mounted || _connection != connection) return;
    setState(() => _connection = null);
    await _close(connection);
    _show('disconnected');
  }

  Future<void> _close(BluetoothConnection connection) async {
    try {
      await connection.close();
    } on BluetoothException catch (error) {
      _showFailure(error);
    }
  }

  Future<void> _send(String text) async {
    final BluetoothConnection? connection = _connection;
    if (connection == null) {
      _show('not connected');
      return;
    }
    _input.clear();
    _show('> $text');
    try {
      if (await connection.writeText('$text\r\n')) return;
      _show('not sent');
    } on BluetoothException catch (error) {
      _showFailure(error);
    }
    await _disconnect(connection);
  }

  @override
  Widget build(BuildContext context) {
    final BluetoothConnection? connection = _connection;
    return Scaffold(
      appBar: AppBar(
        title: Text(widget.address),
        actions: <Widget>[
          if (connection == null)
            TextButton(
              onPressed: _isBusy ? null : _connect,
              child: const Text('Connect'),
            )
          else
            TextButton(
              onPressed: () => _disconnect(connection),
              child: const Text('Disconnect'),
            ),
        ],
      ),
      body: Column(
        children: <Widget>[
          Expanded(
            // Reversed, it stands at its end, and each new line shows.
            child: ListView.builder(
              reverse: true,
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
              focusNode: _inputFocus,
              autofocus: true,
              decoration: const InputDecoration(labelText: 'Line to send'),
              // Without it the field gives its focus away at each line.
              onEditingComplete: () {},
              onSubmitted: _send,
            ),
          ),
        ],
      ),
    );
  }
}
