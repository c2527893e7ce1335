import 'dart:async';

import 'package:flutter/material.dart';
import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';
import 'package:lumso_bluetooth_example/main.dart';

const String address = 'AA:BB:CC:DD:EE:FF';
const BluetoothDevice scale =
    BluetoothDevice(address: address, name: 'Scale', rssi: -60);
const String askDoctor = 'lumso_doctor $address tells more.';

/// Lets requests be answered, and pages come and go. A progress bar never comes
/// to rest.
Future<void> settle(WidgetTester tester) async {
  for (int frame = 0; frame < 20; frame++) {
    await tester.pump(const Duration(milliseconds: 100));
  }
}

/// Starts the application on a plug-in that knows the scale.
Future<FakeBluetoothPlugin> start(
  WidgetTester tester, {
  void Function(FakeBluetoothPlugin plugin)? prepare,
}) async {
  final FakeBluetoothPlugin plugin = FakeBluetoothPlugin(
    tester.binding.defaultBinaryMessenger.setMockMessageHandler,
  );
  addTearDown(plugin.remove);
  plugin.name = 'desktop';
  plugin.report(const DeviceReport(scale));
  prepare?.call(plugin);
  await tester.pumpWidget(const ExampleApp());
  await settle(tester);
  return plugin;
}

Future<void> tap(WidgetTester tester, String text) async {
  await tester.tap(find.text(text));
  await settle(tester);
}

Future<void> submit(WidgetTester tester, String text) async {
  await tester.enterText(find.byType(TextField), text);
  await tester.testTextInput.receiveAction(TextInputAction.done);
  await settle(tester);
}

Future<void> goBack(WidgetTester tester) async {
  await tester.pageBack();
  await settle(tester);
}

bool isEnabled(WidgetTester tester, String text) {
  final Finder button = find.ancestor(
    of: find.text(text),
    matching: find.bySubtype<ButtonStyleButton>(),
  );
  return tester.widget<ButtonStyleButton>(button).onPressed != null;
}

/// Answers the method as if there were no adapter.
void refuse(FakeBluetoothPlugin plugin, String method) {
  plugin.onRequest = (MethodCall call) {
    if (call.method != method) return null;
    throw PlatformException(code: BluetoothException.invalid);
  };
}

/// Lets the method wait until the returned completer is completed.
Completer<void> hold(FakeBluetoothPlugin plugin, String method) {
  final Completer<void> gate = Completer<void>();
  plugin.onRequest =
      (MethodCall call) => call.method == method ? gate.future : null;
  return gate;
}

void main() {
  group('first page', () {
    testWidgets('shows adapter and devices', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      expect(find.text('desktop is on'), findsOneWidget);
      expect(find.text('Scale'), findsOneWidget);
      expect(find.text('-60 dBm'), findsOneWidget);

      plugin.report(
        const DeviceReport(BluetoothDevice(address: '11:22:33:44:55:66')),
      );
      await settle(tester);
      expect(find.text('11:22:33:44:55:66'), findsOneWidget);

      plugin.state = BluetoothAdapterState.off;
      await settle(tester);
      expect(find.text('desktop is off'), findsOneWidget);
      expect(isEnabled(tester, 'Discover'), isFalse);
    });

    testWidgets('does without a name', (WidgetTester tester) async {
      await start(
        tester,
        prepare: (FakeBluetoothPlugin plugin) => plugin.name = '',
      );
      expect(find.text('Bluetooth is on'), findsOneWidget);
    });

    testWidgets('says that there is no adapter', (WidgetTester tester) async {
      await start(
        tester,
        prepare: (FakeBluetoothPlugin plugin) => plugin.isAvailable = false,
      );
      expect(
        find.text('There is no Bluetooth adapter. lumso_doctor tells more.'),
        findsOneWidget,
      );
      expect(isEnabled(tester, 'Discover'), isFalse);
    });

    testWidgets('says that there is no plug-in', (WidgetTester tester) async {
      await start(
        tester,
        prepare: (FakeBluetoothPlugin plugin) {
          plugin.onRequest = (MethodCall call) {
            // The framework would report that a stream has no plug-in.
            if (call.method == 'listen' || call.method == 'cancel') return null;
            throw MissingPluginException();
          };
        },
      );
      expect(
        find.text('There is no Bluetooth on this system.'),
        findsOneWidget,
      );
      expect(isEnabled(tester, 'Discover'), isFalse);
    });

    testWidgets('starts and stops discovery', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      expect(find.byType(LinearProgressIndicator), findsNothing);
      await tap(tester, 'Discover');
      expect(plugin.isDiscovering, isTrue);
      expect(find.byType(LinearProgressIndicator), findsOneWidget);
      await tap(tester, 'Stop');
      expect(plugin.isDiscovering, isFalse);
      expect(find.byType(LinearProgressIndicator), findsNothing);
    });

    testWidgets('follows what others start and end',
        (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      plugin.isDiscovering = true;
      await settle(tester);
      expect(find.byType(LinearProgressIndicator), findsOneWidget);
      expect(find.text('Stop'), findsOneWidget);
      plugin.state = BluetoothAdapterState.off;
      await settle(tester);
      expect(find.byType(LinearProgressIndicator), findsNothing);
      expect(find.text('Discover'), findsOneWidget);
    });

    testWidgets('says what was refused', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      plugin.answers['startDiscovery'] = false;
      await tap(tester, 'Discover');
      expect(
        find.text('The adapter refused. lumso_doctor tells more.'),
        findsOneWidget,
      );
      refuse(plugin, 'startDiscovery');
      await tap(tester, 'Discover');
      expect(
        find.text('There is no Bluetooth adapter. lumso_doctor tells more.'),
        findsOneWidget,
      );
      expect(isEnabled(tester, 'Discover'), isTrue);
    });

    testWidgets('can be left while it asks', (WidgetTester tester) async {
      late final Completer<void> gate;
      final FakeBluetoothPlugin plugin = await start(
        tester,
        prepare: (FakeBluetoothPlugin plugin) =>
            gate = hold(plugin, 'isAvailable'),
      );
      await tester.pumpWidget(const SizedBox());
      gate.complete();
      await settle(tester);
      expect(plugin.callsOf('getName'), hasLength(1));
    });

    testWidgets('can be left while discovery starts',
        (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      final Completer<void> gate = hold(plugin, 'startDiscovery');
      await tap(tester, 'Discover');
      expect(isEnabled(tester, 'Discover'), isFalse);
      await tester.pumpWidget(const SizedBox());
      gate.complete();
      await settle(tester);
      expect(plugin.isDiscovering, isTrue);
    });
  });

  group("a device's page", () {
    testWidgets('follows the device', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      await tap(tester, 'Scale');
      expect(find.text('Signal: -60 dBm'), findsOneWidget);
      expect(find.text('Connected: no'), findsOneWidget);
      expect(find.text('Reading: none'), findsOneWidget);

      plugin
        ..report(
          const DeviceReport(
            BluetoothDevice(address: address, isConnected: true),
          ),
        )
        ..report(const SignalReading(address, -57));
      await settle(tester);
      expect(find.text('Signal: unknown'), findsOneWidget);
      expect(find.text('Connected: yes'), findsOneWidget);
      expect(find.text('Reading: -57 dBm'), findsOneWidget);

      plugin.report(const DeviceLoss(address));
      await settle(tester);
      expect(find.text('Reading: none'), findsOneWidget);
    });

    testWidgets('bonds, and removes the bond', (WidgetTester tester) async {
      await start(tester);
      await tap(tester, 'Scale');
      expect(find.text('Bonded: no'), findsOneWidget);
      expect(isEnabled(tester, 'Remove bond'), isFalse);

      await tester.tap(find.text('Bond'));
      await tester.pump();
      expect(find.text('Bonding ...'), findsOneWidget);
      expect(isEnabled(tester, 'Bond'), isFalse);
      await settle(tester);
      expect(find.text('Bonding: done'), findsOneWidget);
      expect(find.text('Bonded: yes'), findsOneWidget);
      expect(isEnabled(tester, 'Bond'), isFalse);

      await tap(tester, 'Remove bond');
      expect(find.text('Removing the bond: done'), findsOneWidget);
      expect(find.text('Bonded: no'), findsOneWidget);

      // The daemon has forgotten the device, which nobody reports.
      await goBack(tester);
      expect(find.text('Scale'), findsNothing);
    });

    testWidgets('says what was refused', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      await tap(tester, 'Scale');
      plugin.answers['bondDevice'] = false;
      await tap(tester, 'Bond');
      expect(find.text('Bonding: refused. $askDoctor'), findsOneWidget);
      refuse(plugin, 'bondDevice');
      await tap(tester, 'Bond');
      expect(
        find.text('There is no Bluetooth adapter. $askDoctor'),
        findsOneWidget,
      );
      expect(isEnabled(tester, 'Bond'), isTrue);
      refuse(plugin, 'setAuthSecret');
      await submit(tester, '0123456789');
      expect(
        find.text('There is no Bluetooth adapter. lumso_doctor tells more.'),
        findsOneWidget,
      );
    });

    testWidgets('takes a secret, and hides it', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      await tap(tester, 'Scale');
      await submit(tester, '0123456789');
      expect(plugin.secret, '0123456789');
      expect(
        find.text('Devices of certain names are asked from now on.'),
        findsOneWidget,
      );
      final TextField field = tester.widget(find.byType(TextField));
      expect(field.obscureText, isTrue);
      await submit(tester, '');
      expect(plugin.secret, isEmpty);
      expect(find.text('No device is asked any more.'), findsOneWidget);
    });

    testWidgets('can be left while it takes a secret',
        (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      await tap(tester, 'Scale');
      final Completer<void> gate = hold(plugin, 'setAuthSecret');
      await submit(tester, '0123456789');
      await goBack(tester);
      gate.complete();
      await settle(tester);
      expect(plugin.secret, '0123456789');
    });

    testWidgets('can be left while it bonds', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      await tap(tester, 'Scale');
      final Completer<void> gate = hold(plugin, 'bondDevice');
      await tap(tester, 'Bond');
      expect(plugin.callsOf('bondDevice'), hasLength(1));
      await goBack(tester);
      gate.complete();
      await settle(tester);
      expect(find.byIcon(Icons.link), findsOneWidget);
    });

    testWidgets('can be left before it bonds', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      await tap(tester, 'Scale');
      await tester.tap(find.text('Bond'));
      // Before its moment for the window has passed.
      await tester.pumpWidget(const SizedBox());
      await settle(tester);
      expect(plugin.callsOf('bondDevice'), isEmpty);
    });
  });

  group('the terminal', () {
    Future<FakeBluetoothPlugin> startTerminal(WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await start(tester);
      await tap(tester, 'Scale');
      await tap(tester, 'Terminal');
      return plugin;
    }

    testWidgets('sends and receives lines', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await startTerminal(tester);
      await tap(tester, 'Connect');
      expect(find.text('connected'), findsOneWidget);
      final FakeBluetoothConnection device = plugin.connections.single;
      device.sendText('21.5 kg\r\n');
      await settle(tester);
      expect(find.text('21.5 kg'), findsOneWidget);

      await submit(tester, 'tare');
      expect(device.receivedText, 'tare\r\n');
      expect(find.text('> tare'), findsOneWidget);
      final TextField field = tester.widget(find.byType(TextField));
      expect(field.controller?.text, isEmpty);
      expect(field.focusNode?.hasFocus, isTrue);

      await tap(tester, 'Disconnect');
      expect(find.text('disconnected'), findsOneWidget);
      expect(device.isOpen, isFalse);
      await submit(tester, 'tare');
      expect(find.text('not connected'), findsOneWidget);
    });

    // A desktop's field loses the focus to whatever else is tapped.
    testWidgets('gives its field the focus', (WidgetTester tester) async {
      await startTerminal(tester);
      await tap(tester, 'Connect');
      final TextField field = tester.widget(find.byType(TextField));
      expect(field.focusNode?.hasFocus, isTrue);
    }, variant: TargetPlatformVariant.only(TargetPlatform.linux));

    testWidgets('stands at its end', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await startTerminal(tester);
      await tap(tester, 'Connect');
      for (int line = 0; line < 100; line++) {
        plugin.connections.single.sendText('line $line\n');
      }
      await settle(tester);
      expect(find.text('line 99'), findsOneWidget);
      expect(find.text('line 0'), findsNothing);
      expect(
        tester.getCenter(find.text('line 99')).dy,
        greaterThan(tester.getCenter(find.text('line 98')).dy),
      );
    });

    testWidgets('closes when the device does', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await startTerminal(tester);
      plugin.onConnect = (FakeBluetoothConnection device) => device
        ..sendText('busy')
        ..end();
      await tap(tester, 'Connect');
      expect(find.text('busy'), findsOneWidget);
      expect(find.text('disconnected'), findsOneWidget);
      expect(plugin.connections.single.isOpen, isFalse);
      expect(isEnabled(tester, 'Connect'), isTrue);
    });

    testWidgets('closes when nothing can be sent', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await startTerminal(tester);
      await tap(tester, 'Connect');
      plugin.answers['write'] = false;
      await submit(tester, 'tare');
      expect(find.text('not sent'), findsOneWidget);
      expect(plugin.connections.single.isOpen, isFalse);
    });

    testWidgets('says what fails', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await startTerminal(tester);
      plugin.unreachable.add(address);
      await tap(tester, 'Connect');
      expect(
        find.text('The device cannot be reached. $askDoctor'),
        findsOneWidget,
      );
      plugin.unreachable.clear();
      await tap(tester, 'Connect');
      refuse(plugin, 'write');
      await submit(tester, 'tare');
      expect(
        find.text('There is no Bluetooth adapter. $askDoctor'),
        findsOneWidget,
      );
      expect(isEnabled(tester, 'Connect'), isTrue);
    });

    testWidgets('closes what it leaves', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await startTerminal(tester);
      await tap(tester, 'Connect');
      await goBack(tester);
      expect(plugin.connections.single.isOpen, isFalse);
    });

    testWidgets('closes what is made after it was left',
        (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await startTerminal(tester);
      final Completer<void> gate = hold(plugin, 'connect');
      await tap(tester, 'Connect');
      expect(isEnabled(tester, 'Connect'), isFalse);
      await goBack(tester);
      expect(plugin.connections, isEmpty);
      gate.complete();
      await settle(tester);
      expect(plugin.connections.single.isOpen, isFalse);
    });

    testWidgets('opens nothing once it was left', (WidgetTester tester) async {
      final FakeBluetoothPlugin plugin = await startTerminal(tester);
      await tester.tap(find.text('Connect'));
      await tester.pumpWidget(const SizedBox());
      await settle(tester);
      expect(plugin.callsOf('connect'), isEmpty);
    });
  });
}
