// Reads a page, a 1-bit TIFF of any usual compression, line by line: striped or tiled, either bit
// order, either meaning of 0. A set bit in the lines it gives is a spot that the laser burns.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "programs/imager/JobDescription.h"

struct tiff;

namespace programs {

class PageReader {
 public:
  PageReader();
  ~PageReader();
  PageReader(const PageReader&) = delete;
  PageReader& operator=(const PageReader&) = delete;

  /// 1014 no such file, 1001 cannot be opened or no regular file, 2003 no TIFF or a damaged one,
  /// 2069 not 1 bit deep, not black and white, stored turned or mirrored, in a compression that is
  /// not read line by line, or several pages in one file, 578 not the same resolution along and
  /// across, 33327 larger than any drum. Once for an object.
  Failure open(const std::string& path);

  unsigned width() const { return width_; }    ///< pixels
  unsigned height() const { return height_; }  ///< lines
  /// Dots per inch; 0 when the page does not say.
  double resolution() const { return resolution_; }

  /// The next line, 8 pixels a byte, the leftmost in the highest bit; bits behind the last pixel
  /// are clear. 2003 when the page's data is damaged.
  Failure readLine(std::vector<std::uint8_t>& line);

 private:
  Failure goToOnlyPage();
  Failure damaged() const;
  Failure readHeader();
  Failure checkKind() const;
  Failure readTileSize();
  Failure readResolution();
  bool fillTileRow();
  bool readPixels(std::vector<std::uint8_t>& line);

  struct Closer {
    void operator()(tiff* handle) const;
  };
  std::unique_ptr<tiff, Closer> tiff_;
  std::string path_;
  std::string complaint_;  // the decoder's last message about the header or the current line
  std::uint32_t width_ = 0;
  std::uint32_t height_ = 0;
  std::uint32_t next_ = 0;  // line
  double resolution_ = 0;
  bool zeroBurns_ = false;
  std::uint32_t tileWidth_ = 0;  // 0: striped
  std::uint32_t tileHeight_ = 0;
  std::vector<std::uint8_t> tileRow_;  // the lines of one row of tiles
};

}  // namespace programs
