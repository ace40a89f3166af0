// Fuzz: the harnesses. Each takes any bytes and carries one part of the project through them.
//
// What bytes from outside may do is to be refused with words. A failed assertion, whether of the
// library or of the harness, an exception that gets out, a finding of a sanitizer, a leak and a
// loop without end are failures. docs/fuzzing.md tells how to run them.

#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "driver/Frame.h"

namespace Vel::Fuzz {

using Driver::ByteView;

void fuzzRegion( ByteView bytes );
void fuzzStateMachine( ByteView bytes );
void fuzzTables( ByteView bytes );
void fuzzCommands( ByteView bytes );
void fuzzHardwareState( ByteView bytes );
void fuzzTexts( ByteView bytes );
void fuzzFrames( ByteView bytes );

struct Harness {
   std::string_view name; ///< also of the folder of its kept inputs
   void ( *run )( ByteView bytes );
};
inline constexpr std::array< Harness, 7 > harnesses{ {
   { "Region", fuzzRegion },
   { "StateMachine", fuzzStateMachine },
   { "Tables", fuzzTables },
   { "Commands", fuzzCommands },
   { "HardwareState", fuzzHardwareState },
   { "Texts", fuzzTexts },
   { "Frames", fuzzFrames },
} };

inline std::string_view textIn( ByteView bytes ) {
   return { reinterpret_cast< const char* >( bytes.data() ), bytes.size() };
}

} // namespace Vel::Fuzz
