#include "agent/import/LabelTable.h"

#include <algorithm>
#include <array>
#include <utility>

#include "agent/import/ImportChecks.h"

namespace Vel::Agent {

std::string_view nounOf( ForeignFec::Kind kind ) {
   constexpr std::array< std::string_view, 3 > nouns{ "next-hop group", "tunnel", "external FEC" };
   return nouns.at( static_cast< size_t >( kind ) );
}

namespace {

/// Reads as much of a document as tells its format: as a rule, its first field.
class FormatGuess final : public JsonPieces {
 public:
   std::optional< LabelTableFormat > format() const { return format_; }
   /// The pieces that the document is cut into: the answer to a question for one label is itself
   /// the one route.
   JsonCut cut() const { return cut_; }

   bool opened( JsonKind kind ) override {
      if ( kind == JsonKind::list ) {
         format_ = LabelTableFormat::iproute2;
         return false;
      }
      // `{}` is the empty table of a router without labels.
      emptyObject_ = kind == JsonKind::object;
      return emptyObject_;
   }
   bool opensList( std::string_view key ) override {
      guess( key );
      return true;
   }
   bool piece( const JsonPiece& piece ) override {
      if ( piece.list.empty() && !guess( piece.key ) &&
           ( piece.value.is( JsonKind::object ) || labelOfDigits( piece.key ) ) ) {
         format_ = LabelTableFormat::frr;
      }
      return !format_;
   }
   void finish() {
      if ( !format_ && emptyObject_ ) {
         format_ = LabelTableFormat::frr;
      }
   }

 private:
   bool guess( std::string_view key ) {
      emptyObject_ = false;
      if ( format_ ) {
         return true;
      }
      if ( key == "velmplsLabelTable" || key == "routes" || foreignKindOfList( key ) ) {
         format_ = LabelTableFormat::native;
      } else if ( key == "inLabel" || key == "nexthops" || key == "backupNexthops" ||
                  key == "installed" ) {
         format_ = LabelTableFormat::frr;
         cut_ = JsonCut::whole;
      }
      return format_.has_value();
   }

   std::optional< LabelTableFormat > format_;
   JsonCut cut_ = JsonCut::members;
   bool emptyObject_ = false;
};

/// Sorts by stack. Of several routes of one stack none is kept: which one holds cannot be known.
void sortAndDropDoubles( std::vector< LabelRoute >& routes, ErrorList& errors ) {
   const auto byStack = []( const LabelRoute& a, const LabelRoute& b ) {
      return a.stack < b.stack;
   };
   if ( !std::ranges::is_sorted( routes, byStack ) ) {
      std::ranges::stable_sort( routes, byStack );
   }
   auto kept = routes.begin();
   for ( auto it = routes.begin(); it != routes.end(); ) {
      const auto next = std::find_if( it + 1, routes.end(), [&]( const LabelRoute& route ) {
         return route.stack != it->stack;
      } );
      const auto count = next - it;
      if ( count == 1 ) {
         if ( kept != it ) {
            *kept = std::move( *it );
         }
         ++kept;
      } else {
         errors.add( std::nullopt, it->label(), {},
                     std::to_string( count ) + " routes for the stack " + stackText( it->stack ) +
                        "; which one holds cannot be known, so none is taken" );
      }
      it = next;
   }
   routes.erase( kept, routes.end() );
}

void import( std::string_view text, std::optional< LabelTableFormat > forced, LabelTable& table,
             ErrorList& errors ) {
   if ( !checkSize( text, errors ) ) {
      return;
   }
   FormatGuess guess;
   if ( !readJson( text, JsonCut::members, guess, errors ) ) {
      return;
   }
   guess.finish();
   const std::optional< LabelTableFormat > format = forced ? forced : guess.format();
   if ( !format ) {
      errors.addWhole( "not a label table: neither `show mpls table json` of FRR, nor "
                       "`ip -j -f mpls route`, nor an object with \"velmplsLabelTable\"" );
      return;
   }
   table.format = *format;
   switch ( *format ) {
   case LabelTableFormat::frr:
      importFrr( text, guess.cut(), table.routes, errors );
      break;
   case LabelTableFormat::iproute2:
      importIproute2( text, table.routes, errors );
      break;
   case LabelTableFormat::native:
      importNative( text, table, errors );
      break;
   }
   sortAndDropDoubles( table.routes, errors );
   dropWhatLosesLabels( table, errors );
}

} // namespace

LabelTable parseLabelTable( std::string_view text, std::string file,
                            std::optional< LabelTableFormat > forced ) {
   LabelTable table;
   ErrorList errors( std::move( file ), text );
   import( text, forced, table, errors );
   table.errors = errors.take();
   return table;
}

LabelTable loadLabelTable( const std::string& path, std::optional< LabelTableFormat > forced ) {
   std::string fault;
   if ( const std::optional< std::string > text = readFile( path, fault ) ) {
      return parseLabelTable( *text, inputName( path ), forced );
   }
   LabelTable table;
   table.errors.push_back( unreadable( path, fault ) );
   return table;
}

} // namespace Vel::Agent
