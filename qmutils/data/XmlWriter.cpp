#include "qmutils/data/XmlWriter.h"

#include <algorithm>

#include "qmutils/data/XmlNames.h"
#include "qmutils/foundation/LogLine.h"

namespace qm {

using QMErrors::NoError;
using QMErrors::QMErrorT;

namespace {

constexpr const char* kToStream = "QMXmlC::ToStream(): ";

}  // namespace

/// Line by line down the tree and up again, along the nodes' own links.
QMErrorT XmlWriter::write(const QMXmlC& root, unsigned indent) {
  const QMXmlC* node = &root;
  while (!out_.isFull()) {
    const QMErrorT result = startTag(*node, indent);
    if (result != NoError) return result;
    if (node->m_pFirstChild != nullptr) {
      node = node->m_pFirstChild;
      ++indent;
      continue;
    }
    endTag(*node, indent);
    while (node != &root && node->m_pNext == nullptr && !out_.isFull()) {
      node = node->m_pOwner;
      endTag(*node, --indent);
    }
    if (node == &root) break;
    node = node->m_pNext;
  }
  return NoError;
}

QMErrorT XmlWriter::startTag(const QMXmlC& node, unsigned indent) {
  if (!node.m_bNamed || node.m_ObjectName.empty()) {
    logError(kToStream, node.m_bNamed ? "m_pObjectName is empty: object invalid"
                                      : "m_pObjectName is NULL: object invalid");
    return QMErrors::NullObjectProvided;
  }
  if (!isReadableXmlName(node.m_ObjectName)) {
    logError(kToStream, "the name would be read as something else: ", node.m_ObjectName);
    return QMErrors::ErrorBadlyFormedXML;
  }
  for (const QMXmlC::PropertiesC* p = node.m_pProperties.get(); p != nullptr;
       p = p->m_pNext.get()) {
    if (isReadableXmlPropertyName(p->m_Name)) continue;
    logError(kToStream, "the property would be read as something else: ", p->m_Name);
    return QMErrors::ErrorBadlyFormedXML;
  }
  blanks(indent);
  out_.put("<");
  out_.put(node.m_ObjectName);
  properties(node);
  if (node.m_pFirstChild == nullptr && node.m_Text.empty()) {
    out_.put(" />\r\n");
    return NoError;
  }
  out_.put(node.m_pFirstChild != nullptr ? ">\r\n" : ">");
  out_.put(node.m_Text);
  return NoError;
}

void XmlWriter::properties(const QMXmlC& node) {
  const QMXmlC::PropertiesC* property = node.m_pProperties.get();
  if (property == nullptr) return;
  const bool lines = node.m_bForceNewline;
  out_.put(lines ? "\r\n" : " ");
  for (; property != nullptr && !out_.isFull(); property = property->m_pNext.get()) {
    out_.put(property->m_Name);
    out_.put(" = \"");
    out_.put(property->m_Value);
    out_.put(lines ? "\"\r\n" : "\" ");
  }
}

void XmlWriter::endTag(const QMXmlC& node, unsigned indent) {
  if (node.m_pFirstChild == nullptr && node.m_Text.empty()) return;
  if (node.m_bForceNewline || node.m_pFirstChild != nullptr) blanks(indent);
  out_.put("</");
  out_.put(node.m_ObjectName);
  out_.put(" >\r\n");
}

void XmlWriter::blanks(unsigned count) {
  constexpr std::string_view kBlanks = "                                ";
  for (; count > kBlanks.size() && !out_.isFull(); count -= kBlanks.size()) out_.put(kBlanks);
  out_.put(kBlanks.substr(0, std::min<std::size_t>(count, kBlanks.size())));
}

}  // namespace qm
