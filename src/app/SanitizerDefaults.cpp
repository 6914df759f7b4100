// What the leak checker of a sanitizer build of PatcherApp leaves out of its report (read
// only by that checker; an ordinary build never calls it).
//
// libxml2 keeps a block of state for each thread that uses it and frees it when the thread
// ends. The update's worker thread is detached and may still be on its way out when the
// program ends after a short run, so its block would be reported although nothing is lost.
//
// Where a system bus runs, the windows library talks to it through libdbus, which keeps a
// buffer of its connection for the life of the process. A run started again through pkexec
// gets none of the caller's sanitizer options, so the suppression has to be built in.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:xmlGetGlobalState\n"
           "leak:libdbus-1.so\n";
}
