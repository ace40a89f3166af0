// LabelState: the state of a label. The program's result, explanations, audits and impacts all take
// it from here; an audit compares it with what the library publishes.
//
//    programmed             frames leave by all that the LFIB means
//    partiallyProgrammed    frames leave, but by part of it: next hops are not resolved, a link is
//                           down, the backup stands in, or hardware still has what was meant before
//    unprogrammed           none can leave, or the last writing was refused
//    ignored                in the LFIB, and for another state machine than the one for MPLS
//                           forwarding
//    absent                 not in the LFIB
//
// The state follows from three things:
//  - what is meant, by the LFIB and the L3 layer as they are now (LfibIntent);
//  - what hardware holds, by what it was asked for and has confirmed: an L2 adjacency, or a FEC
//    with the content that was requested;
//  - which ways of these lead out, by next hops, links, other agents' FECs and tunnels, and the
//    hardware's reports on FECs (AdjHwStatus).
// Hardware may have a FEC in an earlier version, whose content is not recorded. Frames are then
// taken to leave by the FEC unless hardware reports that none do. What an earlier agent left in
// hardware counts once the state machine has taken it over.
//
// Where the driver does not mount MplsHwInsight, links count as up, and other agents' FECs and
// tunnels as leading out.
//
//    LabelStates states( entityManager );
//    if ( states.of( key ).state == LabelState::unprogrammed ) ...
//
// Labels that share a via set share the answer, and some thousand answers are kept. So an object is
// good until an entity changes; make another one then.
//
// Cost: 0.2 microseconds for a label whose via set is remembered, else that of LfibIntent and a
// look-up for each via. Memory is bounded.

#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "inspect/FecView.h"
#include "inspect/ForeignWays.h"
#include "inspect/LfibIntent.h"
#include "mpls/VelMplsHwInsight.h"
#include "mpls/VelMplsRecords.h"

namespace Vel::Inspect {

enum class LabelState : uint8_t { programmed, partiallyProgrammed, unprogrammed, ignored, absent };
/// The code that is published of a label in that state.
Mpls::RouteStatusCode codeOf( LabelState state );

struct LabelVerdict {
   LabelState state = LabelState::absent;
   /// Frames leave by what hardware holds for the label, whatever the LFIB says of it now.
   bool leaves = false;
};

class LabelStates {
 public:
   /// Takes what LfibIntent takes, and the hardware's configuration, status, requests and answers.
   explicit LabelStates( const EntityManager& entities );
   LabelStates( const LabelStates& ) = delete;
   LabelStates& operator=( const LabelStates& ) = delete;

   LabelVerdict of( Mpls::RouteKey key );
   /// The same for a caller that has read the intent.
   LabelVerdict of( Mpls::RouteKey key, const Intent& intent ) const;
   /// The inputs alone.
   const LfibIntent& inputs() const { return inputs_; }

 private:
   /// What hardware holds of the label: an L2 adjacency, a FEC, or neither.
   struct Held {
      const MplsRoute* record = nullptr;
      const Mpls::Hardware::L2Adjacency* l2Adjacency = nullptr;
      const ExternalFecInfo* fec = nullptr;
      bool refused = false; ///< hardware has refused the last writing

      const void* what() const { return fec ? static_cast< const void* >( fec ) : l2Adjacency; }
   };
   enum class Ways : uint8_t { none, some, all };
   struct Known {
      Mpls::LfibViaSetKey viaSetKey;
      const void* held = nullptr;
      const void* l3Adjacency = nullptr;
      LabelVerdict verdict;
   };

   Held find( Mpls::RouteKey key ) const;
   LabelVerdict judge( const Held& held, const Intent& intent ) const;
   Ways waysOf( const Held& held ) const;
   Ways waysOfL2( const Mpls::Hardware::L2Adjacency& adjacency ) const;
   Ways waysOfFec( Fib::FecId fecId ) const;
   Ways waysOfVias( const std::vector< Fib::FecVia >& vias, size_t count ) const;
   bool leadsOut( const Fib::FecVia& via ) const;
   bool isMeant( const Held& held, const Intent& intent ) const;
   AdjHwState reported( Fib::FecId fecId ) const;
   bool linkUp( IntfId intf ) const { return insight_ == nullptr || insight_->linkUp( intf ); }

   const LfibIntent inputs_;
   const FecView fecs_;
   const ForeignWays foreignWays_;
   const NextHopView nextHops_;
   const MplsHwInsight* insight_;
   const VrfMplsState* vrf_ = nullptr;        // null while there is none, as the next
   const MplsHwVrfStatus* status_ = nullptr;  //
   const AdjHwStatus* adjHwStatus_ = nullptr; // null where hardware does not report
   VrfId vrfId_ = 0;
   std::vector< Known > known_;         // of some via sets, by hash
   Intent intent_;                      // memory for one label
   mutable std::vector< WayOut > ways_; // memory for one via
};

} // namespace Vel::Inspect

template<>
struct Vel::EnumNames< Vel::Inspect::LabelState > {
   static constexpr std::array< std::pair< Inspect::LabelState, std::string_view >, 5 > names{
      { { Inspect::LabelState::programmed, "programmed" },
        { Inspect::LabelState::partiallyProgrammed, "partiallyProgrammed" },
        { Inspect::LabelState::unprogrammed, "unprogrammed" },
        { Inspect::LabelState::ignored, "ignored" },
        { Inspect::LabelState::absent, "absent" } } };
};

namespace Vel::Inspect {

/// For programs that use no text forms.
constexpr std::string_view name( LabelState state ) {
   return stringValue( state );
}

} // namespace Vel::Inspect
