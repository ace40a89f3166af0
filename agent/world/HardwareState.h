// HardwareState: the file in which the software switch's tables outlive the program.
//
// Hardware goes on forwarding while the software that programs it is replaced. Between two runs of
// the program this file is that hardware: what FECs and routes it holds, in JSON, with interfaces
// by their names. docs/formats.md describes it.
//
// The file is written whole and put in place, so that a run that is killed leaves the old file. One
// run at a time may have the file: it holds a lock on FILE.lock while it lasts.

#pragma once

#include <optional>
#include <string>

#include "agent/world/Interfaces.h"
#include "driver/HwState.h"

namespace Vel::Agent {

class HardwareStateFile {
 public:
   explicit HardwareStateFile( std::string path );
   HardwareStateFile( const HardwareStateFile& ) = delete;
   HardwareStateFile& operator=( const HardwareStateFile& ) = delete;
   /// Releases the file.
   ~HardwareStateFile();

   /// Takes the file until the end of this object; a sentence when another run has it. A run that
   /// only reads the file need not take it.
   std::optional< std::string > take();
   /// The content; hardware that was never programmed when there is no file. Nothing, with a
   /// sentence in `fault`, when the file cannot be read.
   std::optional< Driver::HwState > load( Interfaces& interfaces, std::string& fault ) const;
   /// A sentence when the file could not be written.
   std::optional< std::string > save( const Driver::HwState& state,
                                      const Interfaces& interfaces ) const;

 private:
   const std::string path_;
   std::string target_; // what the path leads to, so that a link stays a link
   int lock_ = -1;
};

} // namespace Vel::Agent
