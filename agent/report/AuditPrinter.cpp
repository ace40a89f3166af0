#include "agent/report/AuditPrinter.h"

#include "agent/report/JsonWriter.h"
#include "agent/report/ReportText.h"
#include "inspect/Words.h"

namespace Vel::Agent {

using Inspect::AuditFinding;
using Inspect::AuditPending;
using Inspect::AuditQueues;
using Inspect::AuditReport;
using Inspect::counted;
using Inspect::Value;

namespace {

std::string subjectText( Mpls::RouteKey label, const std::string& object ) {
   return label.null() ? harmlessText( object ) : textOf( label );
}

void addSubject( Value& record, Mpls::RouteKey label, const std::string& object ) {
   if ( label.null() ) {
      record["object"] = object;
   } else {
      addLabel( record, label );
   }
}

std::string queuesText( const AuditQueues& queues ) {
   std::string text;
   const auto add = [&]( size_t count, std::string_view one, std::string_view many ) {
      if ( count != 0 ) {
         text += ( text.empty() ? "" : ", " ) + counted( count, one, many );
      }
   };
   add( queues.lfib, "change of the LFIB", "changes of the LFIB" );
   add( queues.review, "review", "reviews" );
   add( queues.publishing, "route to publish", "routes to publish" );
   add( queues.hardware, "operation of the hardware", "operations of the hardware" );
   return text;
}

} // namespace

bool printText( std::ostream& out, const AuditReport& report ) {
   TextOut lines( out );
   lines.add( joinText( counted( report.labels, "label", "labels" ), ": ", report.agree, " agree, ",
                        report.differing, " differ, ", report.pending, " pending; ",
                        counted( report.differenceCount, "difference", "differences" ), "\n" ) );
   if ( report.elsewhere != 0 ) {
      lines.add(
         counted( report.elsewhere, "label is replicated and", "labels are replicated and" ) +
         " not followed there\n" );
   }
   for ( const AuditFinding& one : report.differences ) {
      lines.add( joinText( subjectText( one.label, one.object ), "  ", one.stage, ": expected ",
                           harmlessText( one.expected ), "; found ", harmlessText( one.found ),
                           "\n" ) );
   }
   if ( report.differenceCount > report.differences.size() ) {
      lines.add( joinText( "and ",
                           counted( report.differenceCount - report.differences.size(),
                                    "more difference", "more differences" ),
                           "\n" ) );
   }
   for ( const AuditPending& one : report.pendings ) {
      lines.add( joinText( subjectText( one.label, one.object ), "  pending: waits for ",
                           one.waitsFor, "\n" ) );
   }
   if ( report.pendingCount > report.pendings.size() ) {
      lines.add(
         joinText( "and ", report.pendingCount - report.pendings.size(), " more pending\n" ) );
   }
   if ( !report.queues.empty() ) {
      lines.add( "queued: " + queuesText( report.queues ) + '\n' );
   }
   return lines.finish();
}

bool printJson( std::ostream& out, const AuditReport& report ) {
   JsonWriter json( out );
   json.member( "labels", report.labels );
   json.member( "agree", report.agree );
   json.member( "pending", report.pending );
   json.member( "differing", report.differing );
   json.member( "elsewhere", report.elsewhere );
   json.member( "differenceCount", report.differenceCount );
   json.newLine();
   json.beginObject( "queued" );
   json.member( "lfib", report.queues.lfib );
   json.member( "review", report.queues.review );
   json.member( "publishing", report.queues.publishing );
   json.member( "hardware", report.queues.hardware );
   json.end();
   json.newLine();
   json.beginList( "differences" );
   for ( const AuditFinding& one : report.differences ) {
      Value record;
      addSubject( record, one.label, one.object );
      record["stage"] = stringValue( one.stage );
      record["expected"] = one.expected;
      record["found"] = one.found;
      json.newLine();
      json.element( record );
   }
   json.newLine();
   json.end();
   json.newLine();
   json.beginList( "pendings" );
   for ( const AuditPending& one : report.pendings ) {
      Value record;
      addSubject( record, one.label, one.object );
      record["waitsFor"] = one.waitsFor;
      json.newLine();
      json.element( record );
   }
   json.newLine();
   return json.finish();
}

} // namespace Vel::Agent
