/// Why a request failed.
class BluetoothException implements Exception {
  /// Made by the library from the plug-in's answer; public for tests.
  const BluetoothException(this.code, this.message);

  /// The [code] of a request that cannot be carried out at all: there was no
  /// adapter when the application started, or an argument is missing.
  static const String invalid = 'EINVAL';

  /// The [code] when a device cannot be reached on channel 1, or its address is
  /// none. The reason is on the application's standard error.
  static const String unreachable = 'ECONN';

  /// The [code] when nobody answers the channel: the plug-in is not part of the
  /// application, as on another operating system.
  static const String noPlugin = 'ENOSYS';

  /// One of [invalid], [unreachable] and [noPlugin].
  final String code;

  /// A sentence for developers, in English.
  final String message;

  @override
  String toString() => 'BluetoothException($code): $message';
}
