#include "platform/seams/PwStatus.h"

namespace Pseudowire {

VEL_ENTITY_SOURCE( Status )

} // namespace Pseudowire

namespace VelPw {

VEL_ENTITY_SOURCE( DecapInfoTable )

void appendText( std::string& out, const PwDecapInfo& info ) {
   out +=
      Vel::joinText( info.label, " ", info.pwIntfId, " ", info.connector, " hwFec ", info.hwFecId );
}

} // namespace VelPw
