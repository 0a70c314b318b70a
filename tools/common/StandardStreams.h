#pragma once

namespace orvx::tools {

/// Opens closed standard streams, because their numbers would otherwise be given to sockets and
/// files, which would then receive the program's lines. Nothing can be read from them or written to
/// them. They stay closed for programs that are started. To be called first in main().
void occupyStandardStreams();

}  // namespace orvx::tools
