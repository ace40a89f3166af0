// Progress: a line on the terminal that says how far a long job has come.
//
// The line appears on standard error, when that is a terminal and the job has taken longer than a
// second, and is wiped out at the end. A call costs little, so that any loop can report.

#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace Vel::Agent {

class Progress {
 public:
   /// Shows nothing unless `wanted` and standard error is a terminal.
   explicit Progress( bool wanted );
   Progress( const Progress& ) = delete;
   Progress& operator=( const Progress& ) = delete;
   ~Progress() { hide(); }

   /// What is done now, such as "reading table.json".
   void stage( std::string what );
   /// How much of the stage is left. The most that was ever left counts as all of it.
   void left( size_t work );
   /// Wipes the line out, so that something else can be written.
   void hide();

 private:
   void show();

   using Clock = std::chrono::steady_clock;
   bool on_;
   bool shown_ = false;
   std::string what_;
   size_t most_ = 0;
   double done_ = 0; // of the stage, 0 to 1; never goes back
   Clock::time_point start_ = Clock::now();
   Clock::time_point lastShown_;
};

} // namespace Vel::Agent
