// HardwareState: the file in which the software switch's tables outlive the program.
//
// Hardware goes on forwarding while the software that programs it is replaced. Between two runs of
// the program this file is that hardware: what FECs and routes it holds, in JSON, with interfaces
// by their names. docs/formats.md describes it.
//
// The file is written whole and then put in place, so that a run that is killed leaves the old one.

#pragma once

#include <optional>
#include <string>

#include "agent/world/Interfaces.h"
#include "driver/HwState.h"

namespace Vel::Agent {

/// Reads the file. A file that is not there is hardware that has never been programmed. Nothing,
/// with a sentence in `fault`, when it cannot be read.
std::optional< Driver::HwState > loadHardwareState( const std::string& path, Interfaces& interfaces,
                                                    std::string& fault );
/// Writes the file; a sentence when it cannot.
std::optional< std::string > saveHardwareState( const std::string& path,
                                                const Driver::HwState& state,
                                                const Interfaces& interfaces );

} // namespace Vel::Agent
