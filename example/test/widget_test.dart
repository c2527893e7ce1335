import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';
import 'package:lumso_bluetooth_example/main.dart';

void main() {
  testWidgets('shows the adapter and its devices', (WidgetTester tester) async {
    final FakeBluetoothPlugin plugin = FakeBluetoothPlugin(
      tester.binding.defaultBinaryMessenger.setMockMessageHandler,
    );
    addTearDown(plugin.remove);
    plugin.name = 'desktop';
    plugin.report(
      const DeviceReport(
        BluetoothDevice(
          address: 'AA:BB:CC:DD:EE:FF',
          name: 'Scale',
          rssi: -60,
        ),
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
