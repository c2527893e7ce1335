import 'dart:async';

import 'channels.dart';
import 'discovery.dart';
import 'discovery_event.dart';

/// The background prober.
///
/// Once it has a secret it asks devices for their signal strength, in cycles
/// with a pause of half a minute: each known device whose name begins with
/// `VELKAN-`, `VELK2N-`, `DRU-Palent`, `DRU-KX` or `DRU-Ostavel` and to which
/// the application has no connection. What it finds out is also among
/// [BluetoothDiscovery.events].
class BluetoothProber {
  /// The prober.
  const BluetoothProber();

  static final Stream<Map<String, int>> _readings =
      Stream<Map<String, int>>.multi(
    (MultiStreamController<Map<String, int>> listener) {
      listener.add(_latest);
      final StreamSubscription<Map<String, int>> changes =
          _changes.stream.listen(listener.add, onError: listener.addError);
      // Gives no future: `first` would wait for it, in a widget test for ever.
      listener.onCancel = () => unawaited(changes.cancel());
    },
    isBroadcast: true,
  );

  // Collects for all listeners while there is one. Losses that come later are
  // not heard of, so the readings are forgotten then.
  static final StreamController<Map<String, int>> _changes =
      StreamController<Map<String, int>>.broadcast(
    sync: true,
    onListen: () => _events = const BluetoothDiscovery()
        .events
        .listen(_collect, onError: _changes.addError),
    onCancel: () {
      unawaited(_events.cancel());
      _latest = const <String, int>{};
    },
  );
  static late StreamSubscription<DiscoveryEvent> _events;
  static Map<String, int> _latest = const <String, int>{};

  static void _collect(DiscoveryEvent event) {
    if (event is DeviceReport) return;
    final Map<String, int> readings = <String, int>{..._latest};
    if (event is SignalReading) readings[event.address] = event.rssi;
    if (event is DeviceLoss) readings.remove(event.address);
    _latest = Map<String, int>.unmodifiable(readings);
    _changes.add(_latest);
  }

  /// Sets the secret that the prober shows to devices, and starts the prober
  /// with the first. It runs until the application ends. Another secret counts
  /// from the next cycle on; with an empty one nothing is probed. Does not
  /// block, and takes a secret without an adapter, too.
  Future<void> setSecret(String secret) => BluetoothChannels.invoke<Object?>(
        'setAuthSecret',
        <String, Object?>{'secret': secret},
      );

  /// The devices' latest readings in dBm by address: the present map, then a
  /// new one after each reading and each loss, which takes the device out.
  ///
  /// One broadcast stream for any number of listeners, so it may be taken in a
  /// `build` method. It collects while somebody listens: the first listener's
  /// map is empty, also when it had left and comes back. The maps cannot be
  /// changed.
  Stream<Map<String, int>> get readings => _readings;
}
