// The check of a command line against what its command takes. It only warns: unknown and surplus
// words are ignored. Values are not taken from here but looked up (common/options.h), and the two
// differ on purpose: a lone "--" ends the scan, not the lookups.
#ifndef ORV_CLI_SCANNER_H_
#define ORV_CLI_SCANNER_H_

#include <cstddef>
#include <functional>
#include <string>

#include "cli/commands.h"

namespace orv {

// Called with each warning, which has no line end.
using ScanWarning = std::function<void(const std::string& warning)>;

// Looks at every word from the second argument on. Returns the number of words ignored.
std::size_t scan_command_line(const ArgList& args, const CommandRow& command,
                              const ScanWarning& warn);

}  // namespace orv

#endif  // ORV_CLI_SCANNER_H_
