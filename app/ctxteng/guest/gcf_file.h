#pragma once

#include <string>

namespace Ctxt::EndvatUtil {

/// The value of "vc.uuid" in a guest's configuration file, without its quotes; empty when the file cannot be
/// read or has no such line.  The file belongs to the guest's owner: only a regular file of at most 1 MiB is
/// read.
std::string ReadVcUuidFromGcfFile(const std::string& path);

/// The 36-character form of a "vc.uuid": without blanks and dashes, with dashes at the usual places.  Empty
/// when that does not give 36 characters.
std::string CanonicalVcUuid(const std::string& nc_vc_uuid);

}  // namespace Ctxt::EndvatUtil
