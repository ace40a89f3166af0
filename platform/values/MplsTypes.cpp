#include "platform/values/MplsTypes.h"

#include "platform/base/DecimalText.h"

namespace Mpls {

void appendText( std::string& out, const LabelStack& stack ) {
   if ( stack.stackSize() == 0 ) {
      out += "none";
   }
   for ( size_t i = 0; i < stack.stackSize(); ++i ) {
      out += i ? "/" : "";
      appendText( out, stack.label( i ) );
   }
}

void appendText( std::string& out, const RouteKey& key ) {
   if ( key.label( 0 ).null() ) {
      out += "none";
   }
   for ( size_t depth = 0; depth < RouteKey::maxLabels && !key.label( depth ).null(); ++depth ) {
      out += depth ? "/" : "";
      appendText( out, key.label( depth ) );
   }
}

std::optional< RouteKey > routeKeyParse( std::string_view text ) {
   if ( text == "none" ) {
      return RouteKey();
   }
   std::array< MplsLabel, RouteKey::maxLabels > labels;
   for ( size_t depth = 0;; ++depth ) {
      const size_t slash = text.find( '/' );
      const auto label = Vel::decimalParse( text.substr( 0, slash ), MplsLabel::maxValue );
      if ( !label || depth == labels.size() ) {
         return std::nullopt;
      }
      labels[depth] = MplsLabel( static_cast< U32 >( *label ) );
      if ( slash == std::string_view::npos ) {
         return RouteKey( labels[0], labels[1], labels[2] );
      }
      text.remove_prefix( slash + 1 );
   }
}

} // namespace Mpls
