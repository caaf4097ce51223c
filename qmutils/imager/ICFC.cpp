#include "qmutils/imager/ICFC.h"

#include <algorithm>
#include <new>
#include <string_view>

namespace {

bool fitsIntoValue(std::string_view text) {
  return text.find_first_of("\"\r\n") == std::string_view::npos;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool isKey(std::string_view key) {
  return !key.empty() && key.find_first_of(" \t<>/=") == std::string_view::npos;
}

/// The text up to the next ';', which is taken away with it.
std::string_view takePiece(std::string_view& rest) {
  const std::size_t end = std::min(rest.find(';'), rest.size());
  const std::string_view piece = trimmed(rest.substr(0, end));
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return piece;
}

QMErrors::QMErrorT addProperty(QMXmlC& node, std::string_view name, std::string_view value) {
  return node.AddProperty(std::string(name).c_str(), std::string(value).c_str());
}

/// "Name;Key=Value;Key=Value" as properties. A piece that is no setting makes the profile
/// malformed.
QMErrors::QMErrorT addProfile(QMXmlC& node, std::string_view profile) {
  QMErrors::QMErrorT result = addProperty(node, "Name", takePiece(profile));
  while (result == QMErrors::NoError && !profile.empty()) {
    const std::string_view piece = takePiece(profile);
    if (piece.empty()) continue;
    const std::size_t equals = piece.find('=');
    const std::string_view key = trimmed(piece.substr(0, equals));
    if (equals == std::string_view::npos || !isKey(key)) {
      return QMErrors::BadMissingMalformedICFFile;
    }
    result = addProperty(node, key, trimmed(piece.substr(equals + 1)));
  }
  return result;
}

}  // namespace

QMErrors::QMErrorT ICFC::ToXML(QMXmlC& root, const ExposeInfoC& info) const try {
  if (!fitsIntoValue(info.GetFile()) || !fitsIntoValue(m_Profile)) {
    return QMErrors::BadMissingMalformedICFFile;
  }
  QMXmlC* job = nullptr;
  QMXmlC* profile = nullptr;
  QMErrors::QMErrorT result = root.AddProperty("Version", "1");
  if (result == QMErrors::NoError) result = root.AddChild("Job", &job);
  if (result == QMErrors::NoError) {
    result = job->AddProperty("Number", std::to_string(info.GetJobNumber()).c_str());
  }
  if (result == QMErrors::NoError) result = job->AddProperty("File", info.GetFile().c_str());
  if (result == QMErrors::NoError) result = root.AddChild("Profile", &profile);
  return result == QMErrors::NoError ? addProfile(*profile, m_Profile) : result;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

QMErrors::QMErrorT ICFC::Save(const char* path, const ExposeInfoC& info) const try {
  QMXmlC root(kRootName, 0, nullptr);
  const QMErrors::QMErrorT result = ToXML(root, info);
  return result == QMErrors::NoError ? root.Save(path) : result;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}
