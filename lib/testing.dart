/// A plug-in for the tests of applications: `FakeBluetoothPlugin`.
///
/// Needs no test library: it is handed the function with which a test answers
/// platform messages.
library;

export 'src/fake_plugin.dart';
