#include "sim/World.h"

#include <utility>

#include "driver/Frame.h"
#include "platform/base/Text.h"

namespace Vel::Sim {

namespace {

constexpr U64 macBase = 0x02'00'00'00'00'00;

IntfId intfOf( U32 link ) {
   return IntfId::ordinary( link );
}
IntfId tunnelIntf() {
   return { IntfId::Kind::dynamicTunnel, 1 };
}
Fib::FecId groupFec() {
   return Fib::FecId::fecIdForAdjType( Fib::AdjType::nexthopGroupAdj, 1 );
}
Fib::FecId extFecId( U32 number ) {
   constexpr U64 typeOfAnotherAgent = 7;
   return Fib::FecId( typeOfAnotherAgent << Fib::adjTypePos() | number );
}
IpGenAddr addressOf( U32 link, bool v6 ) {
   return *IpGenAddr::parse( joinText( v6 ? "fe80::" : "10.0.0.", link ) );
}
MacAddr macOf( U32 link, U32 mac ) {
   return MacAddr( macBase + U64{ link } * 256 + mac );
}

Mpls::LfibViaSetKey keyOfViaSet( U32 number ) {
   constexpr U32 lastOrdinary = 6;
   return { number > lastOrdinary ? Mpls::LfibSource::bgpLu : Mpls::LfibSource::ldp,
            Mpls::viaTypeMplsIp, number };
}
Mpls::LfibViaSetKey keyOfExtViaSet( U32 number ) {
   return { Mpls::LfibSource::ldp, Mpls::viaTypeExternalFec, number };
}
Mpls::LfibViaKey viaKeyOf( U32 number, Mpls::LfibViaType type ) {
   return { Mpls::LfibSource::ldp, type, number };
}

Mpls::LfibCapacities capacitiesOf( const Settings& settings ) {
   Mpls::LfibCapacities capacities;
   capacities.routes = 128;
   capacities.deepRoutes = 4;
   capacities.viaSets = 32;
   capacities.mplsVias = 64;
   capacities.extFecVias = 16;
   capacities.pwVias = capacities.ipLookupVias = capacities.vlanVias = 4;
   capacities.evpnVlanAwareVias = capacities.evpnVlanFloodVias = 4;
   capacities.evpnVlanAwareFloodVias = capacities.dot1qEntries = 4;
   capacities.ringEntries = std::max( 16U, settings.ring );
   return capacities;
}

Mpls::LfibMplsVia lfibViaOf( U32 set, U32 i, const Inputs::ViaSet& wanted ) {
   const Inputs::Via& want = wanted.vias[i];
   Mpls::LfibMplsVia via;
   via.key = viaKeyOf( set * static_cast< U32 >( maxVias ) + i, Mpls::viaTypeMplsIp );
   via.labelAction = want.action;
   if ( want.action == MplsLabelAction::swap || want.action == MplsLabelAction::push ) {
      via.labelStack = { want.label };
   }
   via.nextHop = addressOf( want.link, want.v6 );
   via.intf = want.byResolver ? IntfId() : intfOf( want.link );
   switch ( wanted.form ) {
   case ViaSetForm::group:
      via.nextHop = {};
      via.intf = Fib::FecId::fecIdToNexthopGroupIntfId( groupFec() );
      break;
   case ViaSetForm::tunnel:
      via.nextHop = {};
      via.intf = tunnelIntf();
      break;
   case ViaSetForm::mixedIntfs:
      via.intf = i == 0 ? tunnelIntf() : intfOf( want.link );
      break;
   case ViaSetForm::twoLabels:
      via.labelAction = MplsLabelAction::swap;
      via.labelStack = { want.label, want.label + 1 };
      break;
   default:
      break;
   }
   return via;
}

} // namespace

World::World( const Settings& settings, HardwareFactory factory )
   : factory_( std::move( factory ) ),
     inputs_( settings ),
     memory_( Mpls::LfibWriter::bytesNeeded( capacitiesOf( settings ) ) / sizeof( U64 ) ),
     writer_( std::make_unique< Mpls::LfibWriter >( std::as_writable_bytes( std::span( memory_ ) ),
                                                    capacitiesOf( settings ),
                                                    Mpls::LfibMemory::zeroed ) ),
     clock_( make< ManualClock >( 100.0 ) ) {
   writer_->readyIs( true );
   makeAgent( nullptr );
}

World::~World() {
   agent_->sm = nullptr;
   agent_->hardware.reset();
}

// --- The agent.

void World::makeAgent( const HardwareMemory* left ) {
   auto agent = std::make_unique< Agent >();
   const Settings& settings = inputs_.settings;
   agent->scheduler = make< Scheduler >( Ptr< Clock >( clock_ ) );
   agent->scheduler->timeSliceIs( 1e9 );
   agent->scheduler->maxQueriesPerRunIs( settings.questions );
   agent->lfib = make< Mpls::LfibStatus >( "transitLfib", std::as_bytes( std::span( memory_ ) ) );
   agent->l3Status = make< VelL3Status >( "velL3Status" );
   agent->l3Status->adjHwStatusIs( make< AdjHwStatus >() );
   agent->l3 = std::make_unique< L3Layer >( *agent->l3Status );
   agent->routeStatus = make< Routing::Hardware::RouteStatus >( "routeStatus" );
   agent->routingInfo = make< Mpls::RoutingInfo >( "routingInfo" );
   agent->routingInfo->mplsRoutingIs( L3::VrfName::defaultVrf(), inputs_.routing );
   agent->lfibInfo = make< Mpls::LfibInfo >( "lfibInfo" );
   agent->lfibInfo->nexthopResolutionAllowDefaultRouteIs( inputs_.allowDefault );
   agent->attrLog = make< AttrLogSm >();
   agent->attrLog->isAttrLogOutCloggedIs( inputs_.clogged );

   MplsSmInputs& in = agent->inputs;
   in.lfibInfo = agent->lfibInfo;
   in.mplsRoutingInfo = agent->routingInfo;
   in.transitLfib = agent->lfib;
   in.lfibHwStatus = make< Mpls::LfibHwStatus >( "lfibHwStatus" );
   in.routingHwRouteStatus = agent->routeStatus;
   in.routingHwMplsStatus = make< Mpls::Hardware::Status >( "hwMplsStatus" );
   in.routeReactorConfig = agent->l3->resolver;
   in.route6ReactorConfig = agent->l3->resolver6;
   in.mplsHwConfig = mplsHwConfigFactory( "mplsHwConfig" );
   in.mplsHwStatus = mplsHwStatusFactory( "mplsHwStatus" );
   in.velL3Status = agent->l3Status;
   in.proactiveArpNhSm = agent->l3->arp;
   in.entityManager = make< EntityManager >();
   in.attrLogSm = agent->attrLog;
   in.clock = clock_;
   in.scheduler = agent->scheduler;

   agent_ = std::move( agent );
   tellVrf();
   for ( U32 link = 1; link <= settings.links; ++link ) {
      tellNeighbor( link );
   }
   agent_->l3->slowIs( settings.slowL3 != 0 );
   makeHardware( *agent_, left );
   makeStateMachine();
}

void World::makeHardware( Agent& agent, const HardwareMemory* left ) {
   HardwareEntities& entities = agent.hardwareEntities;
   entities.config = agent.inputs.mplsHwConfig;
   entities.status = agent.inputs.mplsHwStatus;
   entities.scheduler = agent.scheduler;
   entities.l3Status = agent.l3Status;
   if ( inputs_.settings.fecs != 0 && !entities.fecRequest ) {
      entities.fecRequest = make< FecIdToHwFecIdRequest >( "fecRequest" );
      entities.fecResponse = make< FecIdToHwFecIdResponse >( "fecResponse" );
      entities.startup = make< L3StartupStagePrerequisitesStatus >();
      entities.routeSyncMap = VelHelper::mplsRouteSyncMapFactory();
      const L3Layer* const l3 = agent.l3.get();
      entities.resolve = [this, l3]( IntfId intf, const IpGenAddr& nextHop ) {
         return l3->info( { intf, nextHop }, inputs_.allowDefault );
      };
   }
   agent.hardware = factory_( entities, inputs_.settings, left );
   for ( U32 link = 1; link <= inputs_.settings.links; ++link ) {
      agent.hardware->linkIs( intfOf( link ), inputs_.linkUp[link] );
   }
   for ( U32 number = 0; number <= inputs_.settings.extViaSets; ++number ) {
      tellForeign( number );
   }
   tellFaults();
}

void World::makeStateMachine() {
   Agent& agent = *agent_;
   if ( inputs_.settings.fecs != 0 ) {
      agent.inputs.hwFecIdRequest = agent.hardwareEntities.fecRequest;
      agent.inputs.hwFecIdResponse = agent.hardwareEntities.fecResponse;
      if ( inputs_.settings.slowFecs != 0 ) {
         const auto passed = make< FecIdToHwFecIdResponse >( "fecResponse" );
         agent.relay =
            std::make_unique< AnswerRelay >( agent.hardwareEntities.fecResponse, passed );
         agent.inputs.hwFecIdResponse = passed;
      }
      agent.inputs.mplsSmHelper = agent.hardware->helper();
      agent.inputs.mplsRouteSyncMap = agent.hardwareEntities.routeSyncMap;
      agent.inputs.inputStatusSummary = mplsSmInputSummaryFactory();
      agent.inputs.velL3StartupStagePrereqs = agent.hardwareEntities.startup;
      agent.inputStatusSm = mplsSmInputStatusSmFactory(
         agent.hardwareEntities.routeSyncMap,
         Ptr( const_cast< MplsSmInputSummary* >( agent.inputs.inputStatusSummary.get() ) ) );
   }
   agent.sm = MplsSmIs( agent.inputs );
   agent.sm->maxStaleShareIs( inputs_.staleShare / 100.0 );
}

// --- What is told.

void World::tellNeighbor( U32 link ) {
   for ( const bool v6 : { false, true } ) {
      const IpGenAddr addr = addressOf( link, v6 );
      if ( inputs_.mac[link] != 0 ) {
         agent_->l3->neighborIs( { intfOf( link ), addr }, macOf( link, inputs_.mac[link] ) );
      } else {
         agent_->l3->neighborDel( { intfOf( link ), addr } );
      }
      agent_->l3->byDefaultIs( addr, inputs_.byDefault[link] );
   }
   if ( agent_->hardware ) {
      agent_->hardware->neighborsChanged();
   }
}

// Tells hardware of another agent's FEC, by its number; 0 stands for the group and the tunnel.
void World::tellForeign( U32 number ) {
   const auto vias = []( const Inputs::Foreign& foreign ) {
      std::vector< Fib::FecVia > made;
      if ( foreign.link != 0 ) {
         Fib::FecVia via;
         via.nextHop = addressOf( foreign.link, false );
         via.intf = intfOf( foreign.link );
         via.labelAction = MplsLabelAction::push;
         via.labelStack = { Inputs::foreignLabel + foreign.stamp };
         made.push_back( via );
      }
      return made;
   };
   if ( number == 0 ) {
      agent_->hardware->foreignFecIs( groupFec(), vias( inputs_.group ) );
      agent_->hardware->tunnelIs( tunnelIntf(), vias( inputs_.tunnel ) );
   } else {
      agent_->hardware->foreignFecIs( extFecId( number ), vias( inputs_.extFec[number] ) );
   }
}

void World::tellFaults() {
   HardwareFaults faults{ inputs_.capacity[0], inputs_.capacity[1], inputs_.capacity[2], {}, {} };
   for ( U32 i = 0; i < inputs_.refused.size(); ++i ) {
      if ( inputs_.refused[i] ) {
         faults.refused.push_back( keyOf( i ) );
      }
   }
   for ( U32 link = 1; link <= inputs_.settings.links; ++link ) {
      if ( !inputs_.linkReady[link] ) {
         faults.notReady.push_back( intfOf( link ) );
      }
   }
   agent_->hardware->faultsAre( faults );
}

void World::tellVrf() {
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   if ( inputs_.vrfNumber != 0 ) {
      lastVrfNumber_ = inputs_.vrfNumber;
      agent_->routeStatus->vrfStatusIs( vrf, inputs_.vrfNumber );
   } else {
      agent_->routeStatus->vrfStatusDel( vrf );
   }
   for ( U32 i = 0; i < Inputs::vrfNumbers; ++i ) { // a number loses the name before another has it
      if ( !inputs_.vrfName[i] ) {
         agent_->l3Status->vrfNameDel( Inputs::firstVrfNumber + i );
      }
   }
   for ( U32 i = 0; i < Inputs::vrfNumbers; ++i ) {
      if ( inputs_.vrfName[i] ) {
         agent_->l3Status->vrfNameIs( Inputs::firstVrfNumber + i, vrf );
      }
   }
}

// --- The publisher.

void World::writeRoute( U32 index ) {
   const Inputs::Route& wanted = inputs_.route[index];
   if ( !wanted.there ) {
      writer_->routeDel( keyOf( index ) );
      return;
   }
   const Mpls::LfibViaSetKey key =
      wanted.type == 0   ? keyOfViaSet( wanted.set )
      : wanted.type == 1 ? keyOfExtViaSet( wanted.set )
                         : Mpls::LfibViaSetKey( Mpls::LfibSource::ldp, Mpls::viaTypeVlan, 1 );
   writer_->routeIs( { keyOf( index ), key, 0 } );
}

void World::writeViaSet( U32 number ) {
   const Inputs::ViaSet& wanted = inputs_.viaSet[number];
   if ( !wanted.there() ) {
      writer_->viaSetDel( keyOfViaSet( number ) );
      return;
   }
   Mpls::LfibViaSet viaSet( keyOfViaSet( number ) );
   viaSet.usableAsPrimaryViasIs( !wanted.unusable );
   if ( wanted.backup > inputs_.settings.viaSets ) {
      viaSet.backupViaSetKeyIs( keyOfExtViaSet( wanted.backup - inputs_.settings.viaSets ) );
   } else if ( wanted.backup != 0 ) {
      viaSet.backupViaSetKeyIs( keyOfViaSet( wanted.backup ) );
   }
   for ( U32 i = 0; i < wanted.vias.size(); ++i ) {
      const Mpls::LfibMplsVia via = lfibViaOf( number, i, wanted );
      if ( wanted.vias[i].gone ) {
         writer_->viaDel( via.key );
      } else {
         writer_->mplsViaIs( via );
      }
      viaSet.viaKeyAdd( via.key );
   }
   if ( wanted.form == ViaSetForm::mixedTypes ) {
      viaSet.viaKeyAdd( viaKeyOf( 1, Mpls::viaTypeVlan ) );
   }
   writer_->viaSetIs( viaSet );
}

void World::writeExtViaSet( U32 number ) {
   const Inputs::ExtViaSet& wanted = inputs_.extViaSet[number];
   if ( !wanted.there ) {
      writer_->viaSetDel( keyOfExtViaSet( number ) );
      return;
   }
   const Mpls::LfibViaKey via = viaKeyOf( number, Mpls::viaTypeExternalFec );
   writer_->extFecViaIs( { via, extFecId( wanted.fec ) } );
   Mpls::LfibViaSet viaSet( keyOfExtViaSet( number ) );
   viaSet.viaKeyAdd( via );
   if ( wanted.backup != 0 ) {
      viaSet.backupViaSetKeyIs( keyOfViaSet( wanted.backup ) );
   }
   writer_->viaSetIs( viaSet );
}

void World::writeEverything() {
   for ( U32 number = 1; number < inputs_.viaSet.size(); ++number ) {
      writeViaSet( number );
   }
   for ( U32 number = 1; number < inputs_.extViaSet.size(); ++number ) {
      writeExtViaSet( number );
   }
   for ( U32 index = 0; index < inputs_.route.size(); ++index ) {
      writeRoute( index );
   }
}

void World::republish( U32 how ) {
   const auto region = std::as_writable_bytes( std::span( memory_ ) );
   writer_.reset();
   if ( memory_[Mpls::LfibHeader::magic] == 0 ) {
      regionAway( false );
   }
   if ( how == 0 ) {
      writer_ = std::make_unique< Mpls::LfibWriter >( region );
      return;
   }
   writer_ = std::make_unique< Mpls::LfibWriter >( region, capacitiesOf( inputs_.settings ) );
   if ( how == 1 ) {
      writeEverything();
      writer_->readyIs( true );
   }
}

void World::regionAway( bool away ) {
   memory_[Mpls::LfibHeader::magic] = away ? 0 : Mpls::LfibHeader::magicValue;
}

void World::publish( const Event& event ) {
   const auto& n = event.number;
   switch ( event.kind ) {
   case EventKind::route:
   case EventKind::routeGone:
      writeRoute( n[0] );
      break;
   case EventKind::viaSet:
   case EventKind::viaSetGone:
   case EventKind::viaGone:
      writeViaSet( n[0] );
      break;
   case EventKind::extViaSet:
   case EventKind::extViaSetGone:
      writeExtViaSet( n[0] );
      break;
   case EventKind::republish:
      republish( n[0] );
      break;
   case EventKind::ready:
      writeEverything();
      writer_->readyIs( true );
      break;
   case EventKind::away:
      regionAway( n[0] != 0 );
      break;
   case EventKind::corrupt:
      memory_[n[0] % memory_.size()] ^= U64{ 1 } << n[1] % 64;
      break;
   default:
      break;
   }
}

// --- Events.

void World::poll( size_t limit ) {
   agent_->lfib->poll( limit );
   if ( agent_->lfib->ready() && agent_->inputStatusSm ) {
      agent_->inputStatusSm->systemLfibReadyIs( true );
   }
}

void World::apply( const Event& drawn ) {
   const Event event = inputs_.fitted( drawn );
   inputs_.apply( event );
   const auto& n = event.number;
   Agent& agent = *agent_;
   switch ( event.kind ) {
   case EventKind::neighbor:
   case EventKind::resolvedBy:
      tellNeighbor( n[0] );
      break;
   case EventKind::defaultRoute:
      agent.lfibInfo->nexthopResolutionAllowDefaultRouteIs( inputs_.allowDefault );
      break;
   case EventKind::answers:
      agent.l3->answer( n[0] );
      break;
   case EventKind::vrfName:
   case EventKind::vrfNumber:
      tellVrf();
      break;
   case EventKind::routing:
      agent.routingInfo->mplsRoutingIs( L3::VrfName::defaultVrf(), inputs_.routing );
      break;
   case EventKind::link:
      agent.hardware->linkIs( intfOf( n[0] ), inputs_.linkUp[n[0]] );
      break;
   case EventKind::extFec:
      tellForeign( n[0] );
      break;
   case EventKind::group:
   case EventKind::tunnel:
      tellForeign( 0 );
      break;
   case EventKind::capacity:
   case EventKind::refuse:
   case EventKind::notReady:
      tellFaults();
      break;
   case EventKind::clog:
      agent.attrLog->isAttrLogOutCloggedIs( inputs_.clogged );
      break;
   default:
      run( event );
      break;
   }
}

// Events that start, end or drive processes, and those of the publisher.
void World::run( const Event& event ) {
   const auto& n = event.number;
   Agent& agent = *agent_;
   switch ( event.kind ) {
   case EventKind::fecAnswer:
      if ( agent.relay ) {
         agent.relay->pass( n[0] );
      }
      break;
   case EventKind::driverRestart:
      if ( inputs_.settings.fecs == 0 ) {
         agent.hardware.reset();
         agent.inputs.mplsHwStatus->vrfStatusDelAll();
         makeHardware( agent, nullptr );
      }
      break;
   case EventKind::newStateMachine:
      if ( inputs_.settings.fecs == 0 ) {
         agent.sm = nullptr;
         makeStateMachine();
      }
      break;
   case EventKind::agentRestart: {
      const std::unique_ptr< HardwareMemory > left = agent.hardware->memory();
      agent.sm = nullptr;
      agent.hardware.reset();
      makeAgent( left.get() );
      break;
   }
   case EventKind::staleShare:
      agent.sm->maxStaleShareIs( inputs_.staleShare / 100.0 );
      if ( inputs_.staleShare >= 100 ) { // that allows any sweep, also one that is held already
         agent.sm->approveStaleSweep();
      }
      break;
   case EventKind::approveSweep:
      agent.sm->approveStaleSweep();
      break;
   case EventKind::reprogram:
      agent.sm->doForceRouteReprogramming();
      break;
   case EventKind::poll:
      poll( n[0] );
      break;
   case EventKind::run:
      agent.scheduler->runDue( n[0] );
      break;
   case EventKind::time:
      clock_->advance( n[0] / 1e6 );
      break;
   case EventKind::mend:
      mend();
      break;
   default:
      publish( event );
      break;
   }
}

void World::mend() {
   const Settings& settings = inputs_.settings;
   const auto then = [this]( EventKind kind, std::array< U32, Event::maxNumbers > numbers ) {
      apply( { kind, numbers } );
   };
   if ( inputs_.corrupt ) {
      then( EventKind::republish, { 1 } );
   }
   if ( inputs_.away ) {
      then( EventKind::away, { 0 } );
   }
   if ( !inputs_.ready ) {
      then( EventKind::ready, {} );
   }
   then( EventKind::capacity, {} );
   for ( U32 index = 0; index < inputs_.refused.size(); ++index ) {
      if ( inputs_.refused[index] ) {
         then( EventKind::refuse, { index, 0 } );
      }
   }
   for ( U32 link = 1; link <= settings.links; ++link ) {
      if ( !inputs_.linkReady[link] ) {
         then( EventKind::notReady, { link, 0 } );
      }
   }
   if ( inputs_.vrfNumber == 0 ) {
      then( EventKind::vrfNumber, { static_cast< U32 >( lastVrfNumber_ ) } );
   }
   if ( !inputs_.vrfNamed() ) {
      then( EventKind::vrfName, { inputs_.vrfNumber, 1 } );
   }
   if ( inputs_.clogged ) {
      then( EventKind::clog, { 0 } );
   }
   if ( inputs_.staleShare < 100 || sm().staleSweepHeld() ) {
      then( EventKind::approveSweep, {} );
   }
}

bool World::unhindered() const {
   const HardwareEntries there = hardware().entries();
   const auto hasRoom = []( size_t entries, U32 limit ) { return limit == 0 || entries < limit; };
   // With a limit, slow hardware may have room now and be full again when it has carried out the
   // retries in its queue.
   return inputs_.cleanButForRoom() && ( inputs_.clean() || agent_->hardware->idle() ) &&
          hasRoom( there.routes, inputs_.capacity[0] ) &&
          hasRoom( there.adjacencies, inputs_.capacity[1] ) &&
          hasRoom( there.fecs, inputs_.capacity[2] );
}

void World::clear() {
   for ( U32 index = 0; index < inputs_.route.size(); ++index ) {
      apply( { EventKind::routeGone, { index } } );
   }
   for ( U32 number = 1; number < inputs_.viaSet.size(); ++number ) {
      apply( { EventKind::viaSetGone, { number } } );
   }
   for ( U32 number = 1; number < inputs_.extViaSet.size(); ++number ) {
      apply( { EventKind::extViaSetGone, { number } } );
   }
}

// --- Coming to rest.

std::string World::settle() {
   constexpr size_t maxRuns = 30'000;
   constexpr double maxSeconds = 900;
   constexpr double roundSeconds = 10; // as long as the library waits between two retries
   constexpr U32 maxRounds = 5;
   const double until = clock_->now() + maxSeconds;
   U32 rounds = 0;
   double lastRound = clock_->now();
   Scheduler& scheduler = *agent_->scheduler;
   for ( size_t runs = 0; runs < maxRuns; ) {
      do {
         poll( 1U << 16 );
      } while ( agent_->lfib->pollPending() && agent_->lfib->attached() && !inputs_.corrupt );
      agent_->l3->answer( 1U << 16 );
      while ( agent_->relay && agent_->relay->answersWait() ) {
         agent_->relay->pass( 0 );
      }
      if ( scheduler.runOne() ) {
         ++runs;
         continue;
      }
      const double next = scheduler.nextExpiry();
      // What cannot be read is looked for again for ever; a damaged region may be refused.
      const bool unread = inputs_.away || ( inputs_.corrupt && sm().unreadTask()->scheduled() );
      if ( next == neverExpires || inputs_.clogged || unread ) {
         return {};
      }
      const VrfMplsState* const vrfState = state();
      if ( vrfState && vrfState->numUnprogrammedRoute() != 0 ) {
         if ( clock_->now() - lastRound > roundSeconds ) {
            lastRound = clock_->now();
            ++rounds;
         }
         // What is due within a second follows from a retry.
         const bool followUp = next - clock_->now() < 1 && rounds <= 2 * maxRounds;
         if ( rounds > maxRounds && !followUp &&
              ( agent_->hardware->idle() || !inputs_.clean() ) ) {
            return {};
         }
      }
      if ( next > until ) {
         return joinText( "still at work after ", maxSeconds, " seconds" );
      }
      clock_->nowIs( next );
   }
   return joinText( "still at work after ", maxRuns, " runs of tasks" );
}

// --- Frames.

namespace {

Driver::Bytes frameOf( U32 label, U32 flow ) {
   constexpr uint8_t ttl = 64;
   Driver::Bytes frame;
   Driver::ethernetAppend(
      frame, { MacAddr( macBase + 1 ), MacAddr( macBase + 2 ), 0, Driver::etherTypeMpls } );
   Driver::labelEntryAppend( frame, { label, 0, true, ttl } );
   frame.insert( frame.end(), { 0x45, 0,  0, 20, 0,   0, 0, 0,
                                ttl,  17, 0, 0,  192, 0, 2, static_cast< uint8_t >( 1 + flow ),
                                192,  0,  2, 100 } );
   return frame;
}

Way wayOf( const Driver::OutgoingFrame& frame ) {
   Way way;
   way.link = static_cast< U32 >( frame.intf.payload() );
   const auto ethernet = Driver::ethernetRead( frame.bytes );
   const U64 mac = ethernet->destination.value() - macBase;
   constexpr U32 strangeMac = 9999;
   way.mac = mac / 256 == way.link ? static_cast< U32 >( mac % 256 ) : strangeMac;
   if ( ethernet->etherType != Driver::etherTypeMpls ) {
      return way;
   }
   for ( size_t at = ethernet->size; way.count < Way::maxLabels; at += Driver::LabelEntry::size ) {
      const auto entry = Driver::labelEntryRead( frame.bytes, at );
      if ( !entry ) {
         break;
      }
      way.label[way.count++] = entry->label;
      if ( entry->bottom ) {
         break;
      }
   }
   return way;
}

} // namespace

std::optional< Way > World::forward( VrfId vrfId, U32 index, U32 flow ) const {
   const auto frames = hardware().forward( vrfId, frameOf( Inputs::labelOf( index ), flow ) );
   if ( frames.empty() ) {
      return std::nullopt;
   }
   return wayOf( frames.front() );
}

} // namespace Vel::Sim
