#include "agent/report/AuditPrinter.h"

#include <ostream>

#include "agent/report/ReportText.h"
#include "inspect/Words.h"

namespace Vel::Agent {

using Inspect::AuditFinding;
using Inspect::AuditPending;
using Inspect::AuditQueues;
using Inspect::AuditReport;
using Inspect::counted;

namespace {

std::string subjectText( Mpls::RouteKey label, const std::string& object ) {
   return label.null() ? harmlessText( object ) : textOf( label );
}

void appendJsonSubject( std::string& out, Mpls::RouteKey label, const std::string& object ) {
   out += '{';
   if ( label.null() ) {
      out += "\"object\":" + jsonText( object );
   } else {
      appendJsonLabel( out, label );
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

bool hand( std::ostream& out, const std::string& text ) {
   out << text;
   out.flush();
   return out.good();
}

} // namespace

bool printText( std::ostream& out, const AuditReport& report ) {
   std::string text =
      joinText( counted( report.labels, "label", "labels" ), ": ", report.agree, " agree, ",
                report.differing, " differ, ", report.pending, " pending; ",
                counted( report.differenceCount, "difference", "differences" ), "\n" );
   if ( report.elsewhere != 0 ) {
      text += counted( report.elsewhere, "label is replicated and", "labels are replicated and" ) +
              " not followed there\n";
   }
   for ( const AuditFinding& one : report.differences ) {
      text +=
         joinText( subjectText( one.label, one.object ), "  ", name( one.stage ), ": expected ",
                   harmlessText( one.expected ), "; found ", harmlessText( one.found ), "\n" );
   }
   if ( report.differenceCount > report.differences.size() ) {
      text += joinText( "and ",
                        counted( report.differenceCount - report.differences.size(),
                                 "more difference", "more differences" ),
                        "\n" );
   }
   for ( const AuditPending& one : report.pendings ) {
      text += joinText( subjectText( one.label, one.object ), "  pending: waits for ", one.waitsFor,
                        "\n" );
   }
   if ( report.pendingCount > report.pendings.size() ) {
      text += joinText( "and ", report.pendingCount - report.pendings.size(), " more pending\n" );
   }
   if ( !report.queues.empty() ) {
      text += "queued: " + queuesText( report.queues ) + '\n';
   }
   return hand( out, text );
}

bool printJson( std::ostream& out, const AuditReport& report ) {
   const AuditQueues& queues = report.queues;
   std::string text = joinText(
      "{\"labels\":", report.labels, ",\"agree\":", report.agree, ",\"pending\":", report.pending,
      ",\"differing\":", report.differing, ",\"elsewhere\":", report.elsewhere,
      ",\"differenceCount\":", report.differenceCount, ",\n\"queued\":{\"lfib\":", queues.lfib,
      ",\"review\":", queues.review, ",\"publishing\":", queues.publishing,
      ",\"hardware\":", queues.hardware, "},\n\"differences\":[" );
   std::string_view separator = "\n";
   for ( const AuditFinding& one : report.differences ) {
      text += separator;
      appendJsonSubject( text, one.label, one.object );
      text +=
         joinText( ",\"stage\":\"", name( one.stage ), "\",\"expected\":", jsonText( one.expected ),
                   ",\"found\":", jsonText( one.found ), "}" );
      separator = ",\n";
   }
   text += "\n],\n\"pendings\":[";
   separator = "\n";
   for ( const AuditPending& one : report.pendings ) {
      text += separator;
      appendJsonSubject( text, one.label, one.object );
      text += joinText( ",\"waitsFor\":\"", one.waitsFor, "\"}" );
      separator = ",\n";
   }
   text += "\n]}\n";
   return hand( out, text );
}

} // namespace Vel::Agent
