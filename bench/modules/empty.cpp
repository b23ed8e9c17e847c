// A module that does not use the bridge.
extern "C" void Start() {}
