import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

const String scale = 'AA:BB:CC:DD:EE:FF';

// What the plug-in writes, beside what it means.
const Map<String, Object?> unknownMap = <String, Object?>{
  'address': scale,
  'name': '',
  'type': 0,
  'isConnected': 0,
  'bondState': 10,
  'rssi': 0,
};
const BluetoothDevice unknown = BluetoothDevice(address: scale);

const Map<String, Object?> bondedMap = <String, Object?>{
  'address': scale,
  'name': 'Scale',
  'type': 0,
  'isConnected': 1,
  'bondState': 12,
  'rssi': -79,
};
const BluetoothDevice bonded = BluetoothDevice(
  address: scale,
  name: 'Scale',
  isConnected: true,
  bondState: BluetoothBondState.bonded,
  rssi: -79,
);

const Map<String, Object?> reading = <String, Object?>{
  'type': 'rssiUpdate',
  'address': scale,
  'rssi': -57,
};
const Map<String, Object?> loss = <String, Object?>{
  'type': 'deviceLost',
  'address': scale,
};

void main() {
  test('reads and writes both states', () {
    const Map<BluetoothAdapterState, int> adapterStates =
        <BluetoothAdapterState, int>{
      BluetoothAdapterState.off: 10,
      BluetoothAdapterState.on: 12,
    };
    for (final BluetoothAdapterState state in BluetoothAdapterState.values) {
      final int value = BluetoothChannelCodec.encodeAdapterState(state);
      expect(value, adapterStates[state]);
      expect(BluetoothChannelCodec.decodeAdapterState(value), state);
    }
    const Map<BluetoothBondState, int> bondStates = <BluetoothBondState, int>{
      BluetoothBondState.notBonded: 10,
      BluetoothBondState.bonded: 12,
    };
    for (final BluetoothBondState state in BluetoothBondState.values) {
      final int value = BluetoothChannelCodec.encodeBondState(state);
      expect(value, bondStates[state]);
      expect(BluetoothChannelCodec.decodeBondState(value), state);
    }
  });

  test('takes an unknown state for off, and for not bonded', () {
    for (final int? value in <int?>[11, 0, null]) {
      expect(
        BluetoothChannelCodec.decodeAdapterState(value),
        BluetoothAdapterState.off,
      );
      expect(
        BluetoothChannelCodec.decodeBondState(value),
        BluetoothBondState.notBonded,
      );
    }
  });

  test('reads and writes device maps', () {
    expect(BluetoothChannelCodec.decodeDevice(unknownMap), unknown);
    expect(BluetoothChannelCodec.encodeDevice(unknown), unknownMap);
    expect(BluetoothChannelCodec.decodeDevice(bondedMap), bonded);
    expect(BluetoothChannelCodec.encodeDevice(bonded), bondedMap);
  });

  test('reads no device from another map', () {
    expect(
      () => BluetoothChannelCodec.decodeDevice(const <Object?, Object?>{}),
      throwsA(isA<TypeError>()),
    );
  });

  test('reads and writes every kind of event', () {
    // Not const, whose keys could not have an equality of their own.
    final Map<DiscoveryEvent, Map<String, Object?>> events =
        <DiscoveryEvent, Map<String, Object?>>{
      const DeviceReport(bonded): <String, Object?>{'device': bondedMap},
      const SignalReading(scale, -57): reading,
      const DeviceLoss(scale): loss,
    };
    events.forEach((DiscoveryEvent event, Map<String, Object?> map) {
      expect(BluetoothChannelCodec.decodeEvent(map), event);
      expect(BluetoothChannelCodec.encodeEvent(event), map);
    });
  });

  test('leaves out a kind of event that it does not know', () {
    for (final Map<String, Object?> event in const <Map<String, Object?>>[
      <String, Object?>{},
      <String, Object?>{'type': 'unheardOf'},
      <String, Object?>{'device': 12},
    ]) {
      expect(BluetoothChannelCodec.decodeEvent(event), isNull);
    }
  });

  test('reads no event that lacks something', () {
    for (final Map<String, Object?> event in const <Map<String, Object?>>[
      <String, Object?>{'device': <String, Object?>{}},
      <String, Object?>{'type': 'rssiUpdate', 'address': scale},
      <String, Object?>{'type': 'deviceLost'},
    ]) {
      expect(
        () => BluetoothChannelCodec.decodeEvent(event),
        throwsA(isA<TypeError>()),
      );
    }
  });
}
