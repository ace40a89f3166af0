#include "driver/FaultPlan.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace Vel::Driver {

namespace {

/// The words of one clause, taken from the front.
class Words {
 public:
   explicit Words( std::string_view text ) : text_( text ) {}
   std::string_view next() {
      const size_t begin = std::min( text_.find_first_not_of( " \t" ), text_.size() );
      const size_t end = std::min( text_.find_first_of( " \t", begin ), text_.size() );
      const std::string_view word = text_.substr( begin, end - begin );
      text_.remove_prefix( end );
      return word;
   }

 private:
   std::string_view text_;
};

template< class T >
std::optional< T > numberOf( std::string_view text ) {
   T value{};
   const auto [end, fault] = std::from_chars( text.data(), text.data() + text.size(), value );
   return fault == std::errc() && end == text.data() + text.size() ? std::optional( value )
                                                                   : std::nullopt;
}

std::optional< double > secondsOf( std::string_view text ) {
   const std::optional< double > seconds = numberOf< double >( text );
   return seconds && *seconds >= 0 && *seconds <= 1e9 ? seconds : std::nullopt;
}

/// "16001" or "16001/16002/16003", top label first.
std::optional< Mpls::RouteKey > routeKeyOf( std::string_view text ) {
   std::array< MplsLabel, Mpls::RouteKey::maxLabels > labels;
   for ( size_t depth = 0; depth < labels.size(); ++depth ) {
      const size_t slash = std::min( text.find( '/' ), text.size() );
      const std::optional< U32 > label = numberOf< U32 >( text.substr( 0, slash ) );
      if ( !label || *label > MplsLabel::maxValue ) {
         return std::nullopt;
      }
      labels[depth] = MplsLabel( *label );
      if ( slash == text.size() ) {
         return Mpls::RouteKey( labels[0], labels[1], labels[2] );
      }
      text.remove_prefix( slash + 1 );
   }
   return std::nullopt;
}

class ClauseParser {
 public:
   ClauseParser( std::string_view clause, const FaultPlan::FindIntf& findIntf )
      : clause_( clause ), words_( clause ), findIntf_( findIntf ) {}

   /// The fault that the clause describes; nothing when it is wrong, and then `why` says why.
   std::optional< Fault > parse() {
      what();
      for ( std::string_view word = words_.next(); why_.empty() && !word.empty();
            word = words_.next() ) {
         option( word );
      }
      if ( why_.empty() && fault_.from >= fault_.until ) {
         why_ = "it ends before it begins";
      }
      return why_.empty() ? std::optional( fault_ ) : std::nullopt;
   }
   std::string why() const { return joinText( "fault \"", clause_, "\": ", why_ ); }

 private:
   void what() {
      const std::string_view verb = words_.next();
      if ( verb == "refuse" ) {
         refused();
      } else if ( verb == "forget" ) {
         if ( words_.next() != "label" ) {
            why_ = "only a label can be forgotten: \"forget label 16001\"";
            return;
         }
         label( FaultKind::forgetLabel );
      } else if ( verb == "not-ready" || verb == "link-down" ) {
         const std::string_view name = words_.next();
         fault_.kind = verb == "not-ready" ? FaultKind::notReady : FaultKind::linkDown;
         fault_.intf = findIntf_ ? findIntf_( name ) : IntfId();
         if ( fault_.intf.empty() ) {
            why_ = joinText( "there is no interface \"", name, "\"" );
         }
      } else if ( verb == "late" ) {
         fault_.kind = FaultKind::late;
         seconds( words_.next(), fault_.seconds );
      } else if ( verb == "route-capacity" ) {
         number( FaultKind::routeCapacity );
      } else if ( verb == "adjacency-capacity" ) {
         number( FaultKind::adjacencyCapacity );
      } else if ( verb == "fec-capacity" ) {
         number( FaultKind::fecCapacity );
      } else {
         why_ = joinText( "\"", verb,
                          "\" is no fault; there are refuse, forget, not-ready, link-down, late, "
                          "route-capacity, adjacency-capacity and fec-capacity" );
      }
   }

   void refused() {
      const std::string_view subject = words_.next();
      if ( subject == "operation" ) {
         number( FaultKind::refuseOperation );
         if ( why_.empty() && fault_.number == 0 ) {
            why_ = "operations are counted from 1";
         }
      } else if ( subject == "label" ) {
         label( FaultKind::refuseLabel );
      } else if ( subject == "adjacency" ) {
         number( FaultKind::refuseAdjacency );
      } else {
         why_ = joinText( "\"", subject,
                          "\" cannot be refused; there are operation, label and adjacency" );
      }
   }

   void label( FaultKind kind ) {
      const std::string_view text = words_.next();
      const std::optional< Mpls::RouteKey > key = routeKeyOf( text );
      fault_.kind = kind;
      if ( key ) {
         fault_.routeKey = *key;
      } else {
         why_ = joinText( "\"", text, "\" is no label (0 to ", MplsLabel::maxValue,
                          ", or up to three with / between them)" );
      }
   }

   void number( FaultKind kind ) {
      const std::string_view text = words_.next();
      const std::optional< U64 > value = numberOf< U64 >( text );
      fault_.kind = kind;
      if ( value ) {
         fault_.number = *value;
      } else {
         why_ = joinText( "\"", text, "\" is no number" );
      }
   }

   void seconds( std::string_view text, double& out ) {
      if ( const std::optional< double > value = secondsOf( text ) ) {
         out = *value;
      } else {
         why_ = joinText( "\"", text, "\" is no time in seconds" );
      }
   }

   void option( std::string_view word ) {
      if ( word == "from" || word == "until" ) {
         seconds( words_.next(), word == "from" ? fault_.from : fault_.until );
         return;
      }
      const bool refusal = fault_.kind == FaultKind::refuseOperation ||
                           fault_.kind == FaultKind::refuseLabel ||
                           fault_.kind == FaultKind::refuseAdjacency;
      for ( const auto& [reason, name] : EnumNames< UnprogrammedReason >::names ) {
         if ( refusal && word == name && reason != UnprogrammedReason::Success ) {
            fault_.reason = reason;
            return;
         }
      }
      why_ = joinText( "\"", word, "\" is neither \"from\" nor \"until\"",
                       refusal ? ", nor AdjacencyFull, RouteFull or InterfaceNotReady" : "" );
   }

   std::string_view clause_;
   Words words_;
   const FaultPlan::FindIntf& findIntf_;
   Fault fault_;
   std::string why_;
};

std::string_view trimmed( std::string_view text ) {
   const size_t begin = std::min( text.find_first_not_of( " \t\r" ), text.size() );
   const size_t end = text.find_last_not_of( " \t\r" );
   return begin == text.size() ? std::string_view() : text.substr( begin, end + 1 - begin );
}

} // namespace

std::optional< std::string > FaultPlan::parse( std::string_view text, const FindIntf& findIntf ) {
   std::vector< Fault > parsed;
   while ( !text.empty() ) {
      const size_t end = std::min( text.find_first_of( ";\n" ), text.size() );
      const std::string_view clause = trimmed( text.substr( 0, end ) );
      text.remove_prefix( std::min( end + 1, text.size() ) );
      if ( clause.empty() ) {
         continue;
      }
      ClauseParser parser( clause, findIntf );
      const std::optional< Fault > fault = parser.parse();
      if ( !fault ) {
         return parser.why();
      }
      parsed.push_back( *fault );
   }
   faults_.insert( faults_.end(), parsed.begin(), parsed.end() );
   return std::nullopt;
}

UnprogrammedReason FaultPlan::refusal( const Operation& operation,
                                       const Mpls::Hardware::L2ViaSet* vias, double now ) {
   ++writings_;
   const auto applies = [&]( const Fault& fault ) {
      switch ( fault.kind ) {
      case FaultKind::refuseOperation:
         return fault.number == writings_;
      case FaultKind::refuseLabel:
         return vias == nullptr && fault.routeKey == operation.routeKey;
      case FaultKind::refuseAdjacency:
         return vias != nullptr && fault.number == operation.adjacency->index();
      case FaultKind::notReady:
         return vias != nullptr &&
                std::ranges::any_of( vias->l2Via(), [&]( const Mpls::Hardware::L2Via& via ) {
                   return via.intf == fault.intf;
                } );
      default:
         return false;
      }
   };
   for ( const Fault& fault : faults_ ) {
      if ( holds( fault, now ) && applies( fault ) ) {
         return fault.reason;
      }
   }
   return UnprogrammedReason::Success;
}

bool FaultPlan::forgets( const Operation& operation, double now ) const {
   return operation.kind == OperationKind::routeWritten &&
          std::ranges::any_of( faults_, [&]( const Fault& fault ) {
             return fault.kind == FaultKind::forgetLabel && fault.routeKey == operation.routeKey &&
                    holds( fault, now );
          } );
}

double FaultPlan::lateness( double now ) const {
   double seconds = 0;
   for ( const Fault& fault : faults_ ) {
      if ( fault.kind == FaultKind::late && holds( fault, now ) ) {
         seconds = std::max( seconds, fault.seconds );
      }
   }
   return seconds;
}

bool FaultPlan::onInterface( FaultKind kind, IntfId intf, double now ) const {
   return std::ranges::any_of( faults_, [&]( const Fault& fault ) {
      return fault.kind == kind && fault.intf == intf && holds( fault, now );
   } );
}

double FaultPlan::nextChange( double now ) const {
   double next = std::numeric_limits< double >::infinity();
   for ( const Fault& fault : faults_ ) {
      for ( const double edge : { start_ + fault.from, start_ + fault.until } ) {
         if ( edge > now ) {
            next = std::min( next, edge );
         }
      }
   }
   return next;
}

size_t FaultPlan::capacity( FaultKind kind, double now, size_t otherwise ) const {
   size_t found = otherwise;
   for ( const Fault& fault : faults_ ) {
      if ( fault.kind == kind && holds( fault, now ) ) {
         found = fault.number;
      }
   }
   return found;
}

} // namespace Vel::Driver
