// One libFuzzer target; QV_FUZZ_HARNESS names its harness (FuzzHarnesses.h).
#include "FuzzHarnesses.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return QV_FUZZ_HARNESS(data, size); }
