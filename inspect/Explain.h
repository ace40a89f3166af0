// Explanation: why a label forwards or does not, told as one chain.
//
//    LFIB route ─ via set ─ admission ─ L3 adjacency ─ next hops ─ L2 adjacency ─ (FEC) ─
//    hardware configuration ─ driver ─ published
//
// Each link needs the one above it. The first one that does not hold is the blocker: what is to be
// mended. The links below it are told all the same, since hardware may go on forwarding with what
// it has.
//
// Everything is read from the entities under their names in the EntityManager and nothing from the
// process that made them, so that any agent that mounts them can be asked. An explanation is what
// stood there when it was made, also in the middle of work. It changes nothing.
//
// Times are seconds of the clock that is mounted there.
//
// Cost: a few look-ups and some text for one label; nothing grows with the table.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "inspect/LabelState.h"
#include "inspect/Value.h"
#include "inspect/Words.h"
#include "mpls/VelMplsRecords.h"
#include "platform/entity/EntityManager.h"

namespace Vel::Inspect {

/// What a link that does not hold is up against.
struct Obstacle {
   double since = neverTime;   ///< seconds; `neverTime`: nobody has noted it
   U64 tries = 0;              ///< writings to the hardware that came to nothing so far
   double nextTry = neverTime; ///< seconds; `neverTime`: not before something happens
   std::string waitsFor;       ///< what has to happen; empty when there is a time
};

struct ChainLink {
   ChainLink( std::string_view linkName, std::string_view linkTitle )
      : name( linkName ), title( linkTitle ) {}

   std::string_view name;  ///< for programs: "l2Adjacency"
   std::string_view title; ///< for people: "L2 adjacency"
   bool holds = false;
   bool degraded = false; ///< holds, but not with all that is wanted
   std::string text;
   std::vector< std::string > details; ///< a line each: next hops, L2 vias
   Value facts;                        ///< a table
   Obstacle obstacle;                  ///< means something while the link does not hold
};

class Explanation {
 public:
   /// Reads the chain of that label. `ignoredReason`: why the label table has the route as one that
   /// is not to be forwarded, where somebody knows.
   Explanation( const EntityManager& entityManager, Mpls::RouteKey key,
                const InterfaceName& interfaceName,
                const std::optional< std::string >& ignoredReason = std::nullopt );

   /// A root without which nothing can be told is not mounted: which. There are no links then.
   const std::string& fault() const { return fault_; }
   Mpls::RouteKey key() const { return key_; }
   LabelState state() const { return verdict_.state; }
   /// Frames leave by what hardware holds for the label, whatever the LFIB says of it now.
   bool leaves() const { return verdict_.leaves; }
   /// The time of the explanation, in seconds.
   double now() const { return now_; }
   /// From the LFIB down. The FEC is there only where the adjacency or the route has one.
   const std::vector< ChainLink >& links() const { return links_; }
   /// The first link that does not hold; null when all do, and for an ignored label, where nothing
   /// is wanted.
   const ChainLink* blocker() const;
   /// The driver reports the label in hardware, whatever the LFIB says of it now.
   bool inHardware() const { return inHardware_; }
   /// The label does what it is meant to: forwards by all vias, or is not to be forwarded.
   bool asWanted() const {
      return state() == LabelState::ignored ||
             ( state() == LabelState::programmed && blocker() == nullptr );
   }

 private:
   Mpls::RouteKey key_;
   std::string fault_;
   LabelVerdict verdict_;
   double now_ = 0;
   std::vector< ChainLink > links_;
   bool inHardware_ = false;
};

} // namespace Vel::Inspect
