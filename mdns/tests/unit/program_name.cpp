// The core refers to the application's program name.
extern "C" const char ProgramName[] = "mdns_tests";
