// The checks that all importers share: fields of a record, labels, addresses, interface names.
//
// A `RecordCheck` accompanies one record (a route, a neighbour) while an importer reads the record.
// A check is one call, and its complaint names the place of the record and the label as far as they
// are known. A record with a complaint is not taken; reading goes on with the next record.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "agent/import/ImportError.h"
#include "agent/import/JsonText.h"
#include "agent/import/LabelTable.h"

namespace Vel::Agent {

/// Larger than any label: 20 bits (RFC 3032 section 2.1).
inline constexpr uint32_t labelLimit = 1U << 20;

/// Whether a field may be left out.
enum class Need : uint8_t { optional, required };

class RecordCheck {
 public:
   /// `noun` is what a record is called while no label is known of it: "route", "neighbour". The
   /// piece must outlive the check.
   RecordCheck( ErrorList& errors, const JsonPiece& piece, std::string_view noun )
      : errors_( errors ), piece_( piece ), noun_( noun ) {}

   /// From here on, complaints name the label.
   void labelIs( uint32_t label ) { label_ = label; }
   /// From here on, complaints name the via, counted from 1; `noun` is what it is called.
   void viaIs( size_t number, std::string_view noun = "via" ) {
      via_ = number;
      viaNoun_ = noun;
   }
   void viaDel() { via_ = 0; }

   void complain( std::string reason );
   bool sound() const { return complaints_ == 0; }
   size_t complaints() const { return complaints_; }

   /// The piece as an object. Nothing, and a complaint, when it is none or breaks a rule.
   std::optional< JsonValue > record();
   bool isObject( JsonValue value, std::string_view what );

   // A field of an object, nothing when it is absent. A field of another type is complained of, and
   // so is an absent one that is required.
   std::optional< std::string_view > text( JsonValue object, std::string_view name, Need need );
   std::optional< uint64_t > natural( JsonValue object, std::string_view name, Need need,
                                      uint64_t largest );
   std::optional< bool > boolean( JsonValue object, std::string_view name, Need need );
   std::optional< JsonValue > list( JsonValue object, std::string_view name, Need need );
   std::optional< JsonValue > object( JsonValue object, std::string_view name, Need need );
   /// Complains of every field with another name.
   void onlyFields( JsonValue object, std::span< const std::string_view > names );

   /// The incoming stack, top label first. Sets the label that complaints name.
   bool incomingStack( std::span< const uint32_t > stack );
   /// The labels of a list, or of text in which they are joined by "/". Nothing after a complaint.
   std::optional< std::vector< uint32_t > > labels( JsonValue list );
   std::optional< std::vector< uint32_t > > labels( std::string_view joined );

   /// The address of one neighbour in its canonical text form; empty after a complaint.
   std::string address( std::string_view text );
   /// The name; empty after a complaint.
   std::string interface( std::string_view name );
   /// The name of something of another agent; empty after a complaint.
   std::string foreignName( std::string_view name );

   /// Reads every element of `hops` with `read( JsonValue, LabelVia& )`, completes and checks the
   /// vias that come of it (see `finishVia`), and adds them to `into`. `noun` is what a via is
   /// called.
   template< typename Read >
   void vias( JsonValue hops, std::vector< LabelVia >& into, LabelPayload bared, Read read,
              std::string_view noun = "via" ) {
      size_t number = 0;
      for ( const JsonValue hop : hops ) {
         if ( ++number > maxVias ) {
            viaDel();
            complain( "more than " + std::to_string( maxVias ) + " " + std::string( noun ) + "s" );
            return;
         }
         viaIs( number, noun );
         oneVia( hop, into, bared, read );
      }
      viaDel();
      if ( number == 0 ) {
         complain( "the " + std::string( noun_ ) + " has no " + std::string( noun ) + "s" );
      }
   }
   template< typename Read >
   void oneVia( JsonValue hop, std::vector< LabelVia >& into, LabelPayload bared, Read read ) {
      const size_t before = complaints_;
      LabelVia via;
      if ( isObject( hop, "the " + std::string( viaNoun_ ) ) ) {
         read( hop, via );
      }
      if ( complaints_ == before ) {
         finishVia( into, bared, via );
      }
   }
   /// Turns a swap to implicit null into a pop, checks what the formats have in common, fills in
   /// the payload of a pop where the table does not say it (`bared`), and adds the via.
   void finishVia( std::vector< LabelVia >& into, LabelPayload bared, LabelVia& via );

 private:
   std::optional< JsonValue > field( JsonValue object, std::string_view name, Need need,
                                     JsonKind kind, std::string_view kindName );

   ErrorList& errors_;
   const JsonPiece& piece_;
   std::string_view noun_;
   std::optional< uint32_t > label_;
   size_t via_ = 0;
   std::string_view viaNoun_ = "via";
   size_t complaints_ = 0;
};

/// Whether the text is neither empty nor too large.
bool checkSize( std::string_view text, ErrorList& errors );
/// "16040", "16040/24001".
std::string stackText( std::span< const uint32_t > stack );
/// A label in digits and nothing else. Values past the largest label come out as `labelLimit`.
std::optional< uint32_t > labelOfDigits( std::string_view digits );
/// What lies under an incoming label: an explicit null names it (RFC 3032 section 2.1).
LabelPayload payloadUnder( uint32_t label );
/// What the field of a native table lists definitions of, if it is such a field.
std::optional< ForeignFec::Kind > foreignKindOfList( std::string_view key );

// One importer a format: adds the sound routes of the text to `routes`, the rest to `errors`.
void importFrr( std::string_view text, JsonCut cut, std::vector< LabelRoute >& routes,
                ErrorList& errors );
void importIproute2( std::string_view text, std::vector< LabelRoute >& routes, ErrorList& errors );
void importNative( std::string_view text, LabelTable& table, ErrorList& errors );

/// Removes routes whose frames would be lost in another agent's groups, tunnels or FECs, with a
/// complaint for each route.
void dropWhatLosesLabels( LabelTable& table, ErrorList& errors );

/// Adds a route while the table has room. False, with a complaint, when it has none.
bool addRoute( std::vector< LabelRoute >& routes, LabelRoute&& route, size_t offset,
               ErrorList& errors );

} // namespace Vel::Agent
