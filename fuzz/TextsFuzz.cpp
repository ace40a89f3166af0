// Texts: everything that a short text can spell. What is read can be written and read again.

#include "agent/cli/TableOptions.h"
#include "driver/FaultPlan.h"
#include "fuzz/Input.h"
#include "platform/base/DecimalText.h"
#include "platform/base/Trace.h"
#include "sim/Event.h"

namespace Vel::Fuzz {

namespace {

/// `whole`: equal values have equal texts, and no other text spells them.
template< class Parse >
void checkText( std::string_view text, const Parse& parse, bool whole ) {
   const auto value = parse( text );
   if ( !value ) {
      return;
   }
   const std::string written = textOf( *value );
   VEL_ASSERT_TEXT( parse( written ) == value, "a text that was written can be read", written,
                    "fuzz", std::string( text ) );
   VEL_ASSERT_TEXT( !whole || written == text, "a value has one text", written, "fuzz",
                    std::string( text ) );
}

void checkScenario( std::string_view text ) {
   std::string why;
   const auto scenario = Sim::scenarioParse( text, why );
   VEL_ASSERT( scenario.has_value() == why.empty() );
   if ( scenario ) {
      const auto again = Sim::scenarioParse( textOf( *scenario ), why );
      VEL_ASSERT( again && again->settings == scenario->settings &&
                  again->events == scenario->events );
   }
}

void checkFaultPlan( std::string_view text ) {
   Driver::FaultPlan plan;
   const auto fault = plan.parse( text, []( std::string_view name ) {
      return name == "eth1" ? IntfId::ordinary( 1 ) : IntfId();
   } );
   VEL_ASSERT( !fault || ( !fault->empty() && plan.empty() ) );
   double now = 0;
   for ( size_t edges = 0; now != std::numeric_limits< double >::infinity(); ++edges ) {
      VEL_ASSERT( edges <= 2 * plan.faults().size() + 1 );
      VEL_ASSERT( plan.lateness( now ) >= 0 );
      plan.linkDown( IntfId::ordinary( 1 ), now );
      plan.capacity( Driver::FaultKind::routeCapacity, now, 0 );
      now = plan.nextChange( now );
   }
}

void checkTrace( std::string_view text ) {
   const std::string before = traceSetting();
   VEL_ASSERT( traceSettingIs( text ) ? traceSetting() == before : traceSetting() == text );
   traceSettingIs( "" );
}

/// What no text spells has a text all the same.
void checkValues( Input input ) {
   const IntfId intf = IntfId::fromValue( input.bits() );
   VEL_ASSERT( intfIdParse( textOf( intf ) ) == intf );
   std::array< uint8_t, 16 > address;
   for ( uint8_t& byte : address ) {
      byte = input.byte();
   }
   const IpGenAddr v6 = IpGenAddr::fromV6( address );
   VEL_ASSERT( IpGenAddr::parse( v6.text() ) == v6 );
   VEL_ASSERT( !textOf( Mpls::RouteKey::fromWord( input.bits() ) ).empty() );
   VEL_ASSERT( !textOf( Mpls::LfibViaSetKey::fromWord( input.bits() ) ).empty() );
   VEL_ASSERT( !textOf( Mpls::LfibViaKey::fromWord( input.bits() ) ).empty() );
}

} // namespace

void fuzzTexts( ByteView bytes ) {
   const std::string_view text = textIn( bytes );
   checkText( text, Mpls::routeKeyParse, true );
   checkText( text, intfIdParse, true );
   checkText( text, IpGenAddr::parse, false );
   checkText( text, MacAddr::parse, false );
   checkText(
      text, []( std::string_view t ) { return decimalParse( t, 1'000'000 ); }, true );
   checkText( text, enumParse< Mpls::LfibViaType >, true );
   const std::string owned( text );
   VEL_ASSERT( Agent::labelOf( owned ).has_value() == Agent::labelFault( owned ).empty() );
   checkScenario( text );
   checkFaultPlan( text );
   checkTrace( text );
   checkValues( Input( bytes ) );
}

} // namespace Vel::Fuzz
