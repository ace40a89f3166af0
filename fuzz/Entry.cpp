// What libFuzzer calls, for the one harness that the build names.

#include "fuzz/Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
   Vel::Fuzz::VELMPLS_HARNESS( { data, size } );
   return 0;
}
