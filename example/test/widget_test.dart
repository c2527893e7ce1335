import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth_example/main.dart';

const Map<String, Object?> device = <String, Object?>{
  'address': 'AA:BB:CC:DD:EE:FF',
  'name': 'Scale',
  'type': 0,
  'isConnected': 0,
  'bondState': 10,
  'rssi': -60,
};

const Map<String, Object?> answers = <String, Object?>{
  'disconnect': false,
  'isAvailable': true,
  'getName': 'desktop',
  'isDiscovering': false,
  'getDiscoveredDevices': <Object?>[device],
};

void main() {
  testWidgets('shows the adapter and its devices', (WidgetTester tester) async {
    final TestDefaultBinaryMessenger messenger =
        TestDefaultBinaryMessengerBinding.instance.defaultBinaryMessenger;
    messenger.setMockMethodCallHandler(
      BluetoothChannels.methods,
      (MethodCall call) async => answers[call.method],
    );
    messenger.setMockStreamHandler(
      BluetoothChannels.state,
      MockStreamHandler.inline(
        onListen: (Object? arguments, MockStreamHandlerEventSink events) {
          events.success(12);
        },
        onCancel: (Object? arguments) {},
      ),
    );
    messenger.setMockStreamHandler(
      BluetoothChannels.discovery,
      MockStreamHandler.inline(
        onListen: (Object? arguments, MockStreamHandlerEventSink events) {},
        onCancel: (Object? arguments) {},
      ),
    );

    await tester.pumpWidget(const ExampleApp());
    await tester.pumpAndSettle();
    expect(find.text('Adapter desktop is on'), findsOneWidget);
    expect(find.text('Scale'), findsOneWidget);
    expect(find.text('-60 dBm'), findsOneWidget);

    await tester.tap(find.text('Scale'));
    await tester.pumpAndSettle();
    expect(find.text('Bonded: no'), findsOneWidget);
  });
}
