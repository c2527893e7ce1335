import 'package:flutter/foundation.dart' show kDebugMode;
import 'package:flutter/material.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'discovery_page.dart';

Future<void> main() async {
  if (kDebugMode) await _closeForgotten();
  runApp(const ExampleApp());
}

/// Closes what was open before a hot restart.
Future<void> _closeForgotten() async {
  WidgetsFlutterBinding.ensureInitialized();
  try {
    await BluetoothConnection.closeForgotten();
  } on BluetoothException catch (error) {
    debugPrint('$error');
  }
}

/// The whole application.
class ExampleApp extends StatelessWidget {
  const ExampleApp({super.key});

  @override
  Widget build(BuildContext context) {
    return MaterialApp(
      title: 'lumso_bluetooth',
      theme: ThemeData(colorSchemeSeed: Colors.indigo),
      home: const DiscoveryPage(),
    );
  }
}
