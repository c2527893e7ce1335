import 'dart:async';

import 'channel_codec.dart';
import 'channels.dart';
import 'device.dart';
import 'discovery_event.dart';

/// Finding devices, and hearing of those that change.
///
/// Every object of this class is the same discovery. Listening starts no
/// discovery: listen to [watchDevices] first, and [start] then. Every request
/// but [isDiscovering] blocks until the daemon has answered, mostly for
/// milliseconds.
class BluetoothDiscovery {
  /// The discovery.
  const BluetoothDiscovery();

  static final Stream<DiscoveryEvent> _events =
      BluetoothChannels.discoveryEvents.expand((Object? message) {
    final DiscoveryEvent? event = message is Map<Object?, Object?>
        ? BluetoothChannelCodec.decodeEvent(message)
        : null;
    return <DiscoveryEvent>[if (event != null) event];
  });
  static final Stream<BluetoothDevice> _reported =
      _events.expand((DiscoveryEvent event) => <BluetoothDevice>[
            if (event is DeviceReport) event.device,
          ]);
  static final Stream<List<BluetoothDevice>> _lists =
      Stream<List<BluetoothDevice>>.multi(_tellLists, isBroadcast: true);

  // Listens first and asks then: a report can overtake the answer, and is newer
  // than what that lists.
  static Future<void> _tellLists(
    MultiStreamController<List<BluetoothDevice>> listener,
  ) async {
    Map<String, BluetoothDevice> devices = <String, BluetoothDevice>{};
    bool isListed = false;
    void tell() =>
        listener.add(List<BluetoothDevice>.unmodifiable(devices.values));
    final StreamSubscription<BluetoothDevice> reports = _reported.listen(
      (BluetoothDevice device) {
        if (devices[device.address] == device) return;
        devices[device.address] = device;
        if (isListed) tell();
      },
      onError: listener.addError,
    );
    // Gives no future: `first` would wait for it, in a widget test for ever.
    listener.onCancel = () => unawaited(reports.cancel());
    try {
      final List<BluetoothDevice> listed =
          await const BluetoothDiscovery().knownDevices();
      // The order is that of the list, the values are the reports'.
      devices = <String, BluetoothDevice>{
        for (final BluetoothDevice device in listed) device.address: device,
        ...devices,
      };
      tell();
    } catch (error, trace) {
      listener.addError(error, trace);
    }
    isListed = true;
  }

  /// Devices of all adapters as they appear and change, with discovery on or
  /// off, and what the prober finds out.
  ///
  /// A broadcast stream for any number of listeners. What happens while nobody
  /// listens is lost. Kinds of event that this version does not know are left
  /// out; one of a known kind that lacks something, which the plug-in does not
  /// send, is an error of the stream, which goes on.
  Stream<DiscoveryEvent> get events => _events;

  /// The devices of the [DeviceReport]s among [events].
  Stream<BluetoothDevice> get devices => _reported;

  /// The list of all devices: what the daemon knows, then the whole list again
  /// after each change.
  ///
  /// One for each address, in the order in which they became known, each as it
  /// was reported last. A device that goes is not reported and stays; a new
  /// listener's list begins anew.
  ///
  /// One broadcast stream for any number of listeners, so it may be taken in a
  /// `build` method. The lists cannot be changed. Each listener makes one
  /// request, which blocks as [knownDevices] does; what that throws is an error
  /// of the stream, which goes on.
  Stream<List<BluetoothDevice>> watchDevices() => _lists;

  /// Whether the adapter looks for devices, whoever told it to. Does not block.
  Future<bool> isDiscovering() => BluetoothChannels.request('isDiscovering');

  /// Starts discovery; true when it runs now or ran before. It goes on until
  /// [cancel], and costs power and bandwidth. False without an adapter, and
  /// when the daemon refuses, as while the adapter is off.
  Future<bool> start() => BluetoothChannels.request('startDiscovery');

  /// Stops a discovery that this application started, and leaves any other
  /// alone; true in both cases. False without an adapter, and when the daemon
  /// refuses, as for one that has ended by itself.
  Future<bool> cancel() => BluetoothChannels.request('cancelDiscovery');

  /// Every device that the daemon knew when it was asked, found just then or
  /// earlier, of all adapters, in the daemon's order. Empty without an adapter.
  ///
  /// Since Flutter 3.39 the answer can be older than what [devices] has told
  /// meanwhile: do not write it over that. [watchDevices] takes care of it.
  Future<List<BluetoothDevice>> knownDevices() =>
      _devices('getDiscoveredDevices');

  /// Those of [knownDevices] that are bonded.
  Future<List<BluetoothDevice>> bondedDevices() => _devices('getBondedDevices');

  Future<List<BluetoothDevice>> _devices(String method) async {
    final List<Object?> maps =
        await BluetoothChannels.invoke<List<Object?>>(method) ??
            const <Object?>[];
    return maps
        .cast<Map<Object?, Object?>>()
        .map(BluetoothChannelCodec.decodeDevice)
        .toList();
  }
}
