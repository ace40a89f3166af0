// Explanation: why a label forwards or does not, told as one chain.
//
//    LFIB route ─ via set ─ admission ─ L3 adjacency ─ next hops ─ L2 adjacency ─ (FEC) ─
//    hardware configuration ─ driver ─ published
//
// Each link needs the one before it. The first link that does not hold is the blocker, which has to
// be mended. The later links are read all the same, since hardware may go on forwarding with what
// it holds.
//
// An explanation reads the entities under their names in the EntityManager, and changes none of
// them. Any process that mounts the entities can ask, at any time; the answer is of that moment.
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

/// What keeps a link from holding.
struct Obstacle {
   double since = neverTime;   ///< seconds; `neverTime`: not recorded
   U64 tries = 0;              ///< writings that the hardware has refused so far
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
   /// Reads the chain of that label. `ignoredReason`: why the route is not to be forwarded, where
   /// the caller knows.
   Explanation( const EntityManager& entityManager, Mpls::RouteKey key,
                const InterfaceName& interfaceName,
                const std::optional< std::string >& ignoredReason = std::nullopt );

   /// Names the root that is needed and not mounted, in which case there are no links. Else empty.
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
