// Backups: which adjacency protects which, who waits for a backup, and where the pop is.
//
// Protection is one level deep: a backup has no backup, and what has a backup protects nobody. An
// adjacency whose backup is not fit for it backs off: it is left as it is and waits under the
// backup's via set key. What makes the backup fit is an event, the processing of its adjacency or a
// change of its via set, and that event queues those who wait. The wait ends with the adjacency's
// own via set as well.
//
//    BackupAwaits   nothing ──missing──> viaSet ──found──> review ──processed──> nothing (linked)
//                                                            └──has a backup itself──> fitness
//
// Pop. Where an adjacency that pops is protected by one that pops alike, the pop cannot be in the
// FECs, since a frame would meet it once for the primary and once for the backup's own routes; it
// travels with the routes instead. One whose pops differ in payload or TTL mode keeps them in its
// FECs: a route can carry one form only. Both sides have to agree: until the backup's FEC has no pop
// either, the primary goes without the backup.
//
// State: L3Adjacency::backupAdj, primaryAdj, awaitedBackup, poppingPrimarys, popsTold;
// VrfMplsState::waitsForBackup. Writes Mpls::Hardware::Status::adjacencyBackupStatus.
// Cost: news of a backup looks at each adjacency that waits for it; all else is a few look-ups.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Links adjacencies with their backups.
class Protection : private Part {
 public:
   using Part::Part;

   /// What those who wait for a backup are told of its adjacency.
   enum class BackupNews : U32 {
      looked,     ///< it has been reviewed, and is as it was
      programmed, ///< it is as its via set says
      changed     ///< it can protect, or no longer
   };

   /// False: the adjacency's backup is not fit yet, an event will bring the adjacency back.
   bool validateAndMaybeUpdateBackupAdjInfo( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                             const Mpls::LfibViaSet& viaSet );
   void setHwBackupAdjStatus( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void deleteBackupAdjInfoFromAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   /// Sets what the adjacency does with the label. A backup counts how many of its primaries pop as
   /// it does.
   static void labelActionIs( VrfMplsState& vrfState, L3Adjacency& l3Adj, MplsLabelAction action,
                              const PopForm& popForm );
   /// Notes what is awaited. A via set that is missing is looked for again a few times; then only
   /// news queues the adjacency, or adjacencies that wait for each other would never rest.
   void waitForBackup( VrfMplsState& vrfState, L3Adjacency& l3Adj, Mpls::LfibViaSetKey backupKey,
                       BackupAwaits awaits );
   static void forgetLooksForBackup( L3Adjacency& l3Adj );
   void stopWaitingForBackup( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   /// The via set's adjacency has been processed, or the via set has changed: who waits for that
   /// looks again. Processing that changes nothing is news only to those who waited for it:
   /// adjacencies that are unfit for each other would otherwise keep each other busy for ever.
   static void queueWaitingForBackup( VrfMplsState& vrfState, Mpls::LfibViaSetKey backupKey,
                                      BackupNews news );
   /// The via set's adjacency may have another FEC: queues the external FECs that it protects.
   static void queueWaitingForOtherFec( VrfMplsState& vrfState, Mpls::LfibViaSetKey backupKey );
   /// Why an adjacency waits for its backup, in words; empty when it does not. For those who
   /// explain.
   std::string backupWaitReason( const VrfMplsState& vrfState, const L3Adjacency& l3Adj ) const;
   static void queuePrimaries( VrfMplsState& vrfState, const L3Adjacency& l3Adj );
   /// The adjacencies whose FECs name this one as their backup.
   static void queuePrimariesOf( VrfMplsState& vrfState, const ExternalFecInfo& info );
   /// The FEC that protects an external one: that of the backup via set's adjacency, where routes
   /// use that via set. One level deep.
   Ptr< ExternalFecInfo > extFecBackupOf( const VrfMplsState& vrfState, const ExternalFecInfo& info,
                                          Mpls::LfibViaSetKey viaSetKey ) const;
   /// The FEC of the backup, once both FECs agree on where the pop is; else none.
   Fib::FecId backupFecIdToRequest( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                                    const Mpls::LfibViaSet& viaSet, bool popRemoved ) const;
   /// Whether the adjacency's pop has to travel with its routes: when it pops, protects or is
   /// protected, and all that share the protection pop alike. With one that does not among them,
   /// each FEC keeps its own operation.
   static bool shouldRemovePop( const L3Adjacency& l3Adj );
   /// Queues the others of the protection where the answer for them has changed as well. True when
   /// this adjacency needs a new FEC id, since routes that go into the old one have to keep what
   /// they have.
   static bool processRemovePopDependencies( VrfMplsState& vrfState, L3Adjacency& l3Adj );

 private:
   BackupAwaits maybeLinkBackupAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                    Mpls::LfibViaSetKey backupKey );
   std::string backupFault( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                            const L3Adjacency& backup ) const;
   void makeBackupAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj, Mpls::LfibViaSetKey backupKey );
   static void linkBackupAdj( L3Adjacency& l3Adj, L3Adjacency& backup );
   Fib::FecId getBackupFecIdForRequest( const Mpls::LfibViaSet& viaSet,
                                        const VrfMplsState& vrfState ) const;
   static bool someJoin( const VrfMplsState& vrfState, const L3Adjacency& l3Adj );
   static bool popsAlike( const L3Adjacency& l3Adj, const L3Adjacency& backup );
   static bool allPop( const L3Adjacency& backup );
};

} // namespace Vel::Transit
