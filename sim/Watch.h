// Watch: holds a world to account, at every event boundary and at rest.
//
// At every boundary
//    records   what the records say of each other, and of the tables that they are written to
//    frames    a frame leaves by a way that the inputs have meant since the last rest, if at all
//    dark      a label forwards that did at the last rest, and was meant to and could ever since
//
// At rest, besides
//    rest      the world comes to rest: nothing works on for ever
//    exact     frames take the ways that the inputs mean, and flows all of them, where these alone
//              decide it
//    published what is published is what frames do
//    left      no work set holds anything; and after `clear` nothing is left at all
//
// A fault is thrown as a `Failure`.

#pragma once

#include <string>
#include <vector>

#include "sim/World.h"

namespace Vel::Sim {

/// What does not hold: which check, and what about.
struct Failure {
   std::string check;
   std::string text;
};

class Watch {
 public:
   explicit Watch( World& world );

   /// After an event that has been carried out.
   void after( const Event& event );
   /// Has the world come to rest.
   void rest();
   /// Takes everything back and expects nothing to be left.
   void clear();

   U64 framesSent() const { return framesSent_; }

 private:
   struct Label {
      Intent intent;
      std::vector< Exits > meant; ///< all that was meant at the last rest and since, each once
      bool firm = false;          ///< forwarded at the last rest, and was meant to and could since
      Inputs::Route wanted;
      bool joined = false; ///< since the last rest, a via set that other labels had already
   };

   void intentsChanged();
   void disturbed();
   bool disturbs( const Event& event ) const;
   bool wasMeant( U32 index, const Way& way ) const;
   bool wasMeant( const Exit& exit, const Way& way ) const;
   bool foreignAlive( U32 number ) const;
   bool isDead( U32 link ) const;
   bool steadilyAlive( const Exit& exit ) const;
   void viaSetsChanged();
   bool joinsOthers( U32 index );
   bool viaSetChanged( U32 index ) const;
   void viaSetsWereMeant( U32 index );
   void checkFrames();
   void checkLabelAtRest( U32 index );
   void checkSpread( U32 index, const Ways& expected );
   void checkPublished( U32 index, const Intent& intent ) const;
   std::string describe( U32 index ) const;

   World& world_;
   std::vector< Label > label_;
   /// The contents that each via set has had while labels used it without a break: one that is not
   /// sane keeps what it had.
   std::vector< std::vector< Inputs::ViaSet > > viaSet_;
   std::vector< std::vector< Inputs::Foreign > > foreign_; ///< all that there was under each number
   /// By link: at some time since the last rest some frames could not leave by it. Hardware that
   /// does not follow neighbours itself has to be told when they can again.
   std::vector< bool > wasDead_;
   U32 flow_ = 0;
   U64 framesSent_ = 0;
};

/// Throws when the records do not agree with each other.
void checkRecords( const World& world );
/// The same of what holds only at rest.
void checkRecordsAtRest( const World& world );
/// Throws when anything is left once everything has been taken back.
void checkNothingLeft( const World& world );

} // namespace Vel::Sim
