import 'package:lumso_bluetooth/lumso_bluetooth.dart';

/// What the user reads of a request that threw, about the device at [address]
/// or about none.
String describe(BluetoothException error, [String? address]) {
  switch (error.code) {
    case BluetoothException.unreachable:
      return 'The device cannot be reached. ${askDoctor(address)}';
    case BluetoothException.invalid:
      return 'There is no Bluetooth adapter. ${askDoctor(address)}';
    case BluetoothException.noPlugin:
      return 'There is no Bluetooth on this system.';
    default:
      return error.message;
  }
}

/// Where the user finds the reason, which no answer of the plug-in tells: the
/// program looks at all that lies between an application and the device.
String askDoctor([String? address]) => address == null
    ? 'lumso_doctor tells more.'
    : 'lumso_doctor $address tells more.';
