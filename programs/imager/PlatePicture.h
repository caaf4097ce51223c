// What the drum carries, as PNG pictures: the plate spot by spot (1 bit deep), and a small preview
// to look at. Lines are handed over one by one; the files get their names only when all is well.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "programs/imager/JobDescription.h"

namespace programs {

class PlatePicture {
 public:
  PlatePicture();
  /// Without finish() the files are removed.
  ~PlatePicture();
  PlatePicture(const PlatePicture&) = delete;
  PlatePicture& operator=(const PlatePicture&) = delete;

  /// `base` is the path without ".png"; the preview is called base + "-preview.png".
  Failure open(const std::string& base, unsigned width, unsigned height, double resolutionDpi);
  /// The next line, as PageReader gives them.
  Failure addLine(const std::vector<std::uint8_t>& line);
  Failure finish();

 private:
  class Png;
  class Preview;
  std::unique_ptr<Png> plate_;
  std::unique_ptr<Preview> preview_;
};

}  // namespace programs
