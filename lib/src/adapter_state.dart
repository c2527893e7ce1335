/// The state of the adapter.
enum BluetoothAdapterState {
  /// Off, or there is no adapter.
  off,

  /// On: devices can be found and connected.
  on,
}
