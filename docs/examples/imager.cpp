// A control program of one page: imager.cpp's program is called with the page's path and finds the
// imager beside itself.
#include <cstdio>
#include <future>
#include <sstream>
#include <string>

#include "qmutils/imager/CTPImagerUserC.h"

class PressRoomC : public CTPImagerUserC {
 public:
  PressRoomC() : CTPImagerUserC("imager", "Press room") {}
  ~PressRoomC() override { StopImager(); }  // while the handlers are still there

  std::promise<std::string> end;

 protected:  // both are called on the worker thread
  QMErrors::QMErrorT HandleImagerMessage(QMErrors::QMMessagePacketT& packet) override {
    if (packet.nType == 1 && packet.nCode == 3) finish(packet.pString);  // the plate is done
    if (packet.nType == 2) finish(QMErrToStr(QMErrors::QMErrorT(packet.nCode)));
    return QMErrors::NoError;
  }
  void HandleImagerError(const char* text) override { finish(text); }

 private:
  void finish(const char* text) {  // an imager that has reported an error may die as well
    if (!finished_) end.set_value(text);
    finished_ = true;
  }

  bool finished_ = false;
};

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  PressRoomC imager;
  CTPImagerUserC::ImagerStartDataC start(
      "", "Default;OutputFolder=plates;DrumWidthMM=130;DrumHeightMM=170", 1, 2, 0);
  QMErrors::QMErrorT result = imager.StartImager(start);
  std::ostringstream jobLine;
  std::ostringstream imageControl;
  if (result == QMErrors::NoError) {
    result = imager.StartExpose(ICFC::ExposeInfoC(argv[1], 17), jobLine, imageControl);
  }
  if (result != QMErrors::NoError) {
    std::fprintf(stderr, "%s\n", QMErrToStr(result));
    return 1;
  }
  const std::string plate = imager.end.get_future().get();
  std::printf("%s%s%s\n", jobLine.str().c_str(), imageControl.str().c_str(), plate.c_str());
  return imager.StopImager() == QMErrors::NoError && plate == "page-17.png" ? 0 : 1;
}
