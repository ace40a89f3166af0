// Inputs: what everybody around the agent wants now, as plain values, and what follows from it.
//
// This is the naive function that the agent and its hardware are held against: it knows no history,
// no order of events and no delay. Where the outcome depends on the order of events (a label whose
// via set is gone keeps what it had; two via sets that protect each other), the intent says so by
// not being exact.

#pragma once

#include <array>
#include <compare>
#include <optional>
#include <string>
#include <vector>

#include "platform/seams/HwMplsStatus.h"
#include "sim/Event.h"

namespace Vel::Sim {

/// Where a frame leaves, and with which labels in place of the one that it came with.
struct Way {
   static constexpr size_t maxLabels = 4;

   U32 link = 0;
   U32 mac = 0; ///< of the neighbour
   U32 count = 0;
   std::array< U32, maxLabels > label{}; ///< top first; none: an IP packet

   friend auto operator<=>( const Way&, const Way& ) = default;
};
/// "link 2 mac 1 labels 500001/1417"
void appendText( std::string& out, const Way& way );
using Ways = std::vector< Way >; // a few

/// A way that hardware may have been told, whether frames can take it or not: out of a link, or
/// into another agent's FEC or tunnel. The labels are those below whatever that agent pushes.
struct Exit {
   static constexpr U32 group = 1, tunnel = 2, firstExtFec = 3;

   U32 foreign = 0; ///< number of the other agent's FEC or tunnel; 0: none
   U32 link = 0;    ///< where the way is not foreign
   U32 count = 0;
   std::array< U32, Way::maxLabels > label{};

   friend auto operator<=>( const Exit&, const Exit& ) = default;
};
using Exits = std::vector< Exit >; // a few

/// What the inputs mean for one label.
struct Intent {
   Exits exits;  ///< all that hardware is to hold for it, the backup's included
   Ways primary; ///< that frames may take now
   Ways backup;  ///< the same, of what protects
   /// Whether the inputs alone decide: at rest, frames then take the primary ways, or with none of
   /// them the backup's. Otherwise what they do depends on what came before.
   bool exact = true;
   /// The label has to stay as it is until what it waits for comes.
   bool keeps = false;
   /// What is published at rest, where the inputs decide it: nothing at all, or this code.
   bool published = false;
   std::optional< Mpls::RouteStatusCode > code;
};

class Inputs {
 public:
   static constexpr U32 firstLabel = 16;
   static constexpr U32 foreignLabel = 500'000; ///< other agents' FECs push this plus their stamp
   static constexpr U32 firstVrfNumber = 7;     ///< of two
   static constexpr U32 vrfNumbers = 2;

   struct Via {
      U32 link = 0;
      U32 label = 0;
      MplsLabelAction action = MplsLabelAction::swap;
      bool v6 = false;
      bool byResolver = false; ///< no interface
      bool gone = false;       ///< not in the LFIB, though it is named

      friend bool operator==( const Via&, const Via& ) = default;
   };
   struct ViaSet {
      ViaSetForm form = ViaSetForm::none;
      U32 backup = 0;
      bool unusable = false;
      /// A bit for each backup of earlier contents, one of which it may keep while it is not
      /// settled.
      U32 backupsBefore = 0;
      std::vector< Via > vias;

      bool there() const { return form != ViaSetForm::none; }
      /// The library keeps no record of its routes while it is like that.
      bool broken() const { return form == ViaSetForm::mixedTypes || form == ViaSetForm::empty; }
      friend bool operator==( const ViaSet&, const ViaSet& ) = default;
   };
   struct Route {
      bool there = false;
      U32 type = 0; ///< as in the event
      U32 set = 0;
   };
   struct ExtViaSet {
      bool there = false;
      U32 fec = 0;
      U32 backup = 0;
   };
   /// A FEC or tunnel of another agent.
   struct Foreign {
      U32 link = 0; ///< 0: not there
      U32 stamp = 0;
   };

   explicit Inputs( const Settings& settings );

   /// The via of a via set event.
   static Via viaOf( const Event& event, size_t i );
   /// The event as it is carried out: numbers that are out of range are brought into it.
   Event fitted( Event event ) const;
   void apply( const Event& fitted );

   Intent intentOf( U32 index ) const;
   /// Whether a frame could leave there as far as neighbours, links and other agents go.
   bool alive( const Exit& exit ) const;
   /// What hardware is to hold for the label while the set has that content.
   Exits exitsOf( U32 set, const ViaSet& content, U32 label ) const;
   /// What another agent has under the number of an exit.
   const Foreign& foreign( U32 number ) const;
   /// Nothing keeps what is wanted from being carried out, and hardware has no limit.
   bool clean() const;
   /// The same, but hardware may have limits.
   bool cleanButForRoom() const;
   /// Whether the next hop is answered.
   bool resolved( const Via& via ) const;
   /// The via set is programmed as a FEC.
   bool isFec( U32 set ) const;
   static U32 labelOf( U32 index ) { return firstLabel + index; }
   bool vrfNamed() const { return vrfNumber != 0 && vrfName[vrfNumber - firstVrfNumber]; }

   const Settings settings;
   std::vector< Route > route;         // by index of the label
   std::vector< ViaSet > viaSet;       // from 1
   std::vector< ExtViaSet > extViaSet; // from 1
   std::vector< U32 > mac;             // of the neighbours on a link, from 1; 0: gone
   std::vector< bool > byDefault;      // the next hops on the link resolve by the default route
   std::vector< bool > linkUp;         // from 1
   std::vector< bool > linkReady;      // from 1: hardware takes what leaves by it
   std::vector< Foreign > extFec;      // from 1
   Foreign group;
   Foreign tunnel;
   bool allowDefault = false;
   bool routing = true;
   U32 vrfNumber = firstVrfNumber;
   std::array< bool, vrfNumbers > vrfName{ true, false };
   std::vector< bool > refused; // by index of the label
   std::array< U32, 3 > capacity{};
   bool clogged = false;
   bool corrupt = false;
   bool away = false; ///< the region cannot be read
   bool ready = true;
   U32 staleShare = 100; // percent

 private:
   void applyAround( const Event& event );
   void viaSetIs( const Event& event );
   Exit exitOf( const ViaSet& set, const Via& via, U32 label ) const;
   void addWay( const Exit& exit, Ways& out ) const;
   void addVias( U32 number, U32 label, Ways& ways, Exits& exits ) const;
   bool sane( const ViaSet& set ) const;
   static U32 backupsOf( const ViaSet& set );
   bool protectsSomebody( U32 set ) const;
   bool hasBackup( U32 set ) const;
   bool backupThere( const ViaSet& set ) const;
   bool settled( const ViaSet& set ) const;
   U32 backupOf( U32 set, bool& exact ) const;
   Intent externalIntent( const Route& route, U32 label ) const;
   Intent viaSetIntent( U32 set, U32 label ) const;
   void judge( U32 number, Intent& intent ) const;
   bool someLinkDown() const;
};

} // namespace Vel::Sim
