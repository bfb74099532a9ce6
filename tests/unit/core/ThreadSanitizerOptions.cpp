/// The handlers of this daemon do real work on purpose, at places where the main thread is at rest: what may be called
/// in a handler is no question here. Nobody but the thread sanitizer asks for this.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() { return "report_signal_unsafe=0"; }
