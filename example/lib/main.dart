import 'package:flutter/material.dart';

import 'discovery_page.dart';

void main() => runApp(const ExampleApp());

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
