#include "qmutils/transport/QMSerialCommsEventC.h"

#include <ios>
#include <ostream>

namespace {

constexpr struct {
  DWORD bit;
  const char* name;
} kLines[] = {
    {MS_CTS_ON, "MS_CTS_ON"},
    {MS_DSR_ON, "MS_DSR_ON"},
    {MS_RING_ON, "MS_RING_ON"},
    {MS_RLSD_ON, "MS_RLSD_ON"},
};

}  // namespace

constinit const CRuntimeClass QMSerialCommsEventC::classQMSerialCommsEventC = {
    "QMSerialCommsEventC", sizeof(QMSerialCommsEventC),
    &QMSerialCommsEventBaseC::classQMSerialCommsEventBaseC};

const CRuntimeClass* QMSerialCommsEventC::GetRuntimeClass() const {
  return &classQMSerialCommsEventC;
}

std::ostream& QMSerialCommsEventC::ToString(std::ostream& os) const {
  const std::ios_base::fmtflags flags = os.flags();
  os << "QMSerialCommsEventC: " << std::hex << std::showbase << m_dwStatus << ": ";
  os.flags(flags);
  for (const auto& line : kLines) {
    if ((m_dwStatus & line.bit) != 0) os << line.name << ", ";
  }
  return os;
}
