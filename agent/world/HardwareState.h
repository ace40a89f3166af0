// HardwareState: the file in which the software switch's tables outlive the program.
//
// Hardware goes on forwarding while the software that programs it is replaced. Between two runs of
// the program this file is that hardware: what FECs and routes it holds, in JSON, with interfaces
// by their names. docs/formats.md describes it.
//
// The file is written whole and put in place, so that a run that is killed leaves the old one. It is
// one run's at a time: FILE.lock beside it says so while the run lasts.

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
   /// Lets it go.
   ~HardwareStateFile();

   /// Takes it until the end of this object; a sentence when it cannot be had. Whoever only reads
   /// need not take it.
   std::optional< std::string > take();
   /// A file that is not there is hardware that has never been programmed. Nothing, with a sentence
   /// in `fault`, when it cannot be read.
   std::optional< Driver::HwState > load( Interfaces& interfaces, std::string& fault ) const;
   /// A sentence when it could not be written.
   std::optional< std::string > save( const Driver::HwState& state,
                                      const Interfaces& interfaces ) const;

 private:
   const std::string path_;
   std::string target_; // what the path leads to: a link goes on naming the file that it names
   int lock_ = -1;
};

} // namespace Vel::Agent
