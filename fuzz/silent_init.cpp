// libFuzzer's start-up hook for the harnesses that only check results: the
// diagnostic lines of the code under test are dropped (see silenceDiagnostics).
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::silenceDiagnostics();
    return 0;
}
