// FECs. Adjacencies that are programmed as FECs request a hardware FEC, and are found again by its
// id when the hardware layer answers.
//
//    L3Adjacency ──> ExternalFecInfo (one for each FEC id) ──request──> FecIdToHwFecIdRequest
//                        │ hwId <──────────────answer─────────────────── FecIdToHwFecIdResponse
//    MplsRoute ──────────┘ createOrUpdateRoute( hwId )
//
// Every FEC id has its record, also those that this library allocates: the record is how an answer
// finds its adjacencies and routes, and its end is the end of the id. An adjacency whose FEC id
// changes is bound to the new record at once; its routes move when the new one is answered, and the
// old record goes with the last of them. What changes within a FEC keeps the id, and hardware
// replaces the content in place; but never under a label that means something else: while a label
// that has left is still in the FEC, or behind a FEC that it protects, new content gets a new id.
// And a label that comes waits, where it is, until hardware has carried out what is requested of
// the FEC: an answer names the version that stands behind the id.
//
// State: VrfMplsState::extFecInfo. Writes FecIdToHwFecIdRequest: fec, fec6, hwFecIdRequest.
// Cost: a request walks the routes of its adjacency and of its FEC a bounded number of times; an
// answer marks the routes of the FEC's adjacencies.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Requests FECs and follows their answers.
class Fecs : private Part {
 public:
   using Part::Part;

   /// The record of a FEC id. A new one takes over what is already answered, which can only be
   /// another agent's FEC: our own ids are new.
   ExternalFecInfo& extFecInfoMake( VrfMplsState& vrfState, Fib::FecId fecId );
   /// Whether the adjacency's FEC would get another content under the wrong labels: those that
   /// forward by it and are not the adjacency's, or not any more.
   bool rewritesOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                        const Mpls::LfibViaSet& viaSet, const CachedLFibMplsViaColl& mplsVias,
                        const ExternalFecInfo& info ) const;
   void createFecForRequestAndUpdateL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                           const Mpls::LfibViaSet& viaSet,
                                           const CachedLFibMplsViaColl& mplsVias,
                                           Fib::FecId fecId );
   void requestHwFecIdAndUpdateDependencyMaps( Fib::FecId fecId, const Fib::Fec& fec4,
                                               const Fib6::Fec& fec6, VrfMplsState& vrfState,
                                               L3Adjacency& l3Adj, Mpls::LfibViaSetKey viaSetKey );
   void bindL3AdjToExtFecInfo( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                               const Ptr< ExternalFecInfo >& info );
   void addRouteKeyToExtFecInfo( Mpls::RouteKey routeKey, ExternalFecInfo& info );
   void deleteRouteKeyFromExtFecInfo( Mpls::RouteKey routeKey, ExternalFecInfo& info );
   /// Deletes the record, the request and the number when no adjacency, route or protected FEC is
   /// left; then asks the same of its backup, which is one level deep.
   void maybeDeleteExtFecInfo( VrfMplsState& vrfState, Fib::FecId fecId );
   void handleHwFecIdResponse( Fib::FecId fecId );
   /// The answer to a multicast request: only releases a number that was set aside.
   void handleMplsMcastHwFecIdResp( Fib::FecId fecId );
   /// Hardware has an earlier version of what is requested.
   bool isBehind( const ExternalFecInfo& info ) const;

 private:
   bool takesOverOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                         Fib::FecId fecId ) const;
   bool protectsOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                        const ExternalFecInfo& primary ) const;
   static Fib::Fec fecOf( Fib::FecId fecId, const CachedLFibMplsViaColl& mplsVias, bool popRemoved,
                          Fib::FecId backup );
   void updateBackupExtInfoForExtFecInfo( VrfMplsState& vrfState, ExternalFecInfo& info,
                                          const Ptr< ExternalFecInfo >& backup );
   void releaseFormerBackups( VrfMplsState& vrfState, ExternalFecInfo& info );
   void processHwFecIdResponse( Fib::FecId fecId, VrfMplsState& vrfState );
   void queueWaitingForFec( VrfMplsState& vrfState, ExternalFecInfo& info );

   U64 lastFecVersion_ = 0; // of all requests
};

} // namespace Vel::Transit
