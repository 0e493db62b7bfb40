#pragma once

#include <sys/types.h>

#include <string>

#include "swivex/Deadline.h"
#include "swivex/ProcessList.h"

namespace quorvix::swivex {

// Fills in the arguments of the listed processes. They lie in each process's own memory, and whoever reads that can be
// made to wait for ever by a file system that does not answer: so a short-lived child reads them, and is left behind at
// the deadline. What came until then is taken. Returns why some are missing; empty: none is.
std::string readCommandLines(ProcessList& list, const std::string& procFolder, const Deadline& deadline);

}  // namespace quorvix::swivex
