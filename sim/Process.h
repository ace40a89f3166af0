// Process: scenarios run in a child process, which reports each through a pipe.
//
// The child says which scenario it is about to run before it does, so that its sudden end is that
// scenario's failure. A run that takes longer than a minute is ended.

#pragma once

#include <functional>
#include <optional>
#include <string>

#include "sim/Run.h"

namespace Vel::Sim {

/// What a child says of one run.
struct Report {
   U64 seed = 0;
   size_t events = 0;
   U64 frames = 0;
   std::optional< Failure > failure;
};

/// The child's side.
class Reporter {
 public:
   static constexpr unsigned maxRunSeconds = 60;

   explicit Reporter( int file ) : file_( file ) {}
   /// Runs and reports; false when it failed.
   bool run( U64 seed, const Scenario& scenario, const HardwareFactory& factory );

 private:
   void write( const std::string& line ) const;

   int file_;
};

/// The parent's side of a child that works until `work` returns.
class Process {
 public:
   explicit Process( const std::function< void( Reporter& ) >& work );
   Process( const Process& ) = delete;
   Process& operator=( const Process& ) = delete;
   /// Ends the child if it has not ended.
   ~Process();

   /// Waits for the next report; nothing when the child has ended. A run that the child's end broke
   /// off is reported as failed.
   std::optional< Report > next();
   /// The file that has something to read when a report, or the end, has come.
   int file() const { return file_; }
   /// A whole report has been read already.
   bool reportWaits() const;
   /// Reads what there is; false at the end.
   bool read();
   /// The next of the reports that have been read; nothing when there is none.
   std::optional< Report > take();

 private:
   std::optional< Report > brokenOff();

   int pid_ = 0;
   int file_ = -1;
   bool ended_ = false;
   std::string text_;
   std::optional< Report > running_;
};

} // namespace Vel::Sim
