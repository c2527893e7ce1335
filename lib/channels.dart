/// The plug-in's channels themselves: their names, calls without the library's
/// types, and how values are written on them.
///
/// For tests, for code of an application's own beside the library, and for what
/// the library leaves out. Applications use `lumso_bluetooth.dart`.
library;

export 'src/channel_codec.dart';
export 'src/channels.dart';
