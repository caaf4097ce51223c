// Exposes one job: page in, plate out.
#pragma once

#include <functional>
#include <string>

#include "programs/imager/JobDescription.h"

namespace programs {

/// Told how many lines of the drum are done; false stops the exposure.
using LineReport = std::function<bool(unsigned done, unsigned total)>;

/// Reads the page, lays it on the drum, and writes the plate's pictures into the job's output
/// folder. `picture` receives the plate's file name in that folder. 2014 "Command aborted" when
/// stopped; a failed or stopped exposure leaves no picture.
Failure exposePage(const JobDescription& job, const LineReport& report, std::string& picture);

}  // namespace programs
