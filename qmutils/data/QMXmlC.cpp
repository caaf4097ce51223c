#include "qmutils/data/QMXmlC.h"

#include <new>
#include <ostream>
#include <string_view>
#include <utility>

#include "qmutils/foundation/LogLine.h"

namespace {

const char* orEmpty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

// A long list would otherwise be destroyed by as many nested calls.
QMXmlC::PropertiesC::~PropertiesC() {
  while (m_pNext != nullptr) m_pNext = std::move(m_pNext->m_pNext);
}

QMXmlC::QMXmlC(const char* name, int strict, ErrorListenerC* listener)
    : m_bStrict(strict != 0), m_pListener(listener) {
  try {
    if (name != nullptr) SetObjectName(name);
  } catch (const std::bad_alloc&) {
    qm::logError("QMXmlC::QMXmlC(): ", "failed while allocating QMXmlC object for:", name);
  }
}

QMXmlC::QMXmlC(const QMXmlC& other) : QMXmlC(nullptr, other.m_bStrict, other.m_pListener) {
  try {
    CopyContent(other);
  } catch (const std::bad_alloc&) {
    qm::logError("QMXmlC::QMXmlC(): ", "failed while allocating a copy");
    // Half a tree would be taken for a whole one.
    DeleteChildren();
    m_pProperties.reset();
    m_pLastProperty = nullptr;
    m_Text.clear();
    m_ObjectName.clear();
    m_bNamed = false;
  }
}

void QMXmlC::SetObjectName(const char* name) {
  m_ObjectName = name;
  m_bNamed = true;
}

/// Into a node that is still empty.
void QMXmlC::CopyContent(const QMXmlC& other) {
  QMXmlC* copy = this;
  const QMXmlC* source = &other;
  for (;;) {
    copy->m_ObjectName = source->m_ObjectName;
    copy->m_bNamed = source->m_bNamed;
    copy->m_bForceNewline = source->m_bForceNewline;
    copy->m_Text = source->m_Text;
    for (const PropertiesC* p = source->m_pProperties.get(); p != nullptr; p = p->m_pNext.get()) {
      copy->AppendProperty(std::make_unique<PropertiesC>(p->m_Name, p->m_Value));
    }
    if (source->m_pFirstChild != nullptr) {
      source = source->m_pFirstChild;
    } else {
      while (source != &other && source->m_pNext == nullptr) {
        source = source->m_pOwner;
        copy = copy->m_pOwner;
      }
      if (source == &other) return;
      source = source->m_pNext;
      copy = copy->m_pOwner;
    }
    auto* child = new QMXmlC(nullptr, source->m_bStrict, source->m_pListener);
    copy->Link(child);
    if (source->m_pParent != nullptr) child->m_pParent = copy;
    copy = child;
  }
}

QMXmlC::~QMXmlC() {
  if (m_pOwner != nullptr) m_pOwner->Unlink(this);
  DeleteChildren();
}

/// Deletes the descendants leaf by leaf, so that a deep tree needs no deep stack.
void QMXmlC::DeleteChildren() {
  QMXmlC* node = this;
  for (;;) {
    while (node->m_pFirstChild != nullptr) node = node->m_pFirstChild;
    if (node == this) return;
    QMXmlC* const owner = node->m_pOwner;
    delete node;  // unlinks itself
    node = owner;
  }
}

void QMXmlC::Link(QMXmlC* child) {
  child->m_pOwner = this;
  child->m_pNext = nullptr;
  child->m_pPrevious = m_pLastChild;
  (m_pLastChild != nullptr ? m_pLastChild->m_pNext : m_pFirstChild) = child;
  m_pLastChild = child;
}

void QMXmlC::Unlink(QMXmlC* child) {
  (child->m_pPrevious != nullptr ? child->m_pPrevious->m_pNext : m_pFirstChild) = child->m_pNext;
  (child->m_pNext != nullptr ? child->m_pNext->m_pPrevious : m_pLastChild) = child->m_pPrevious;
  child->m_pNext = child->m_pPrevious = child->m_pOwner = child->m_pParent = nullptr;
}

QMErrors::QMErrorT QMXmlC::AddChild(QMXmlC& child) {
  bool linkable = child.m_pOwner == nullptr && &child != this;
  // Only a node with children can be an ancestor, so building downwards costs no look at the depth.
  const QMXmlC* above = child.m_pFirstChild != nullptr ? m_pOwner : nullptr;
  for (; above != nullptr; above = above->m_pOwner) linkable = linkable && above != &child;
  if (!linkable) return QMErrors::FailedToAddChild;
  Link(&child);
  return QMErrors::NoError;
}

QMErrors::QMErrorT QMXmlC::AddChild(const char* name, QMXmlC** out) try {
  if (out != nullptr) *out = nullptr;
  if (name == nullptr) {
    qm::logError("QMXmlC::AddChild(): ", "NULL == pChildName");
    return QMErrors::NullObjectProvided;
  }
  auto child = std::make_unique<QMXmlC>(nullptr, m_bStrict, m_pListener);
  child->SetObjectName(name);
  Link(child.get());
  QMXmlC* const added = child.release();
  if (out != nullptr) *out = added;
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  qm::logError("QMXmlC::AddChild(): failed while allocating QMXmlC object for:", name);
  return QMErrors::MemoryAllocationFailed;
}

void QMXmlC::AppendProperty(std::unique_ptr<PropertiesC> property) {
  PropertiesC* const added = property.get();
  (m_pLastProperty != nullptr ? m_pLastProperty->m_pNext : m_pProperties) = std::move(property);
  m_pLastProperty = added;
}

QMErrors::QMErrorT QMXmlC::AddProperty(const char* name, const char* value) try {
  AppendProperty(std::make_unique<PropertiesC>(orEmpty(name), orEmpty(value)));
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  qm::logError("QMXmlC::AddProperty(): ", "failed allocating new property");
  return QMErrors::MemoryAllocationFailed;
}

QMErrors::QMErrorT QMXmlC::GetProperty(const char* name, PropertiesC** entry) const {
  PropertiesC* found = m_pProperties.get();
  while (found != nullptr && name != nullptr && found->m_Name != name) found = found->m_pNext.get();
  if (found == nullptr || name == nullptr) return QMErrors::EndOfFileError;
  *entry = found;
  return QMErrors::NoError;
}

const char* QMXmlC::GetProperty(const char* name) const {
  PropertiesC* entry = nullptr;
  return GetProperty(name, &entry) == QMErrors::NoError ? entry->m_Value.c_str() : nullptr;
}

QMErrors::QMErrorT QMXmlC::GetProperty(const char* name, std::ostream& os) const try {
  PropertiesC* entry = nullptr;
  const QMErrors::QMErrorT result = GetProperty(name, &entry);
  if (result != QMErrors::NoError) return result;
  return os << entry->m_Value << std::ends ? QMErrors::NoError : QMErrors::FailedToWriteXMLObject;
} catch (...) {
  return QMErrors::FailedToWriteXMLObject;  // a stream that throws when it fails
}

void QMXmlC::GetObjectName(std::ostream& os) const try { os << m_ObjectName; } catch (...) {
  // The stream's state tells.
}

QMErrors::QMErrorT QMXmlC::SetText(const char* text) try {
  m_Text = orEmpty(text);
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

QMXmlC* QMXmlC::FindByName(const std::string& name, const QMXmlC* skip) {
  QMXmlC* node = this;
  for (;;) {
    if (node != skip && node->HasName(name.c_str())) return node;
    if (node->m_pFirstChild != nullptr) {
      node = node->m_pFirstChild;
      continue;
    }
    while (node != this && node->m_pNext == nullptr) node = node->m_pOwner;
    if (node == this) return nullptr;
    node = node->m_pNext;
  }
}

QMXmlC* QMXmlC::Find(const char* name, int recurse, const QMXmlC* skip) try {
  if (name == nullptr) return nullptr;
  QMXmlC* node = this;
  std::string_view rest = name;
  while (node != nullptr) {
    if (node != skip && node->m_bNamed && node->m_ObjectName == rest) return node;
    if (recurse == 0) return nullptr;
    const std::size_t dot = rest.find('.');
    node = node->FindByName(std::string(rest.substr(0, dot)), skip);
    if (dot == std::string_view::npos) return node;
    rest.remove_prefix(dot + 1);
  }
  return nullptr;
} catch (const std::bad_alloc&) {
  return nullptr;
}

QMXmlC* QMXmlC::FindAbove(const char* name) {
  QMXmlC* node = name != nullptr ? m_pParent : nullptr;
  while (node != nullptr && !node->HasName(name)) node = node->m_pParent;
  return node;
}

QMErrors::QMErrorT QMXmlC::RemoveChild(QMXmlC* child, int destroy) {
  if (child == nullptr) {
    if (m_pParent != nullptr) m_pParent->Unlink(this);
    if (destroy != 0) delete this;
    return QMErrors::NoError;
  }
  // A pointer that leads to no child may lead to nothing at all, so it is only compared; from both
  // ends, where children are mostly removed.
  const QMXmlC* front = m_pFirstChild;
  const QMXmlC* back = m_pLastChild;
  while (front != nullptr && front != child && back != child) {
    front = front->m_pNext;
    back = back->m_pPrevious;
  }
  if (front == nullptr) {
    // The message names the reader; tools that search the logs know it by that.
    qm::logError("QMXmlC::FromStream(): Attempt to remove a non-existent child: ",
                 "Attempted removal from :", m_ObjectName);
    return QMErrors::BadCommandLineArguments;
  }
  Unlink(child);
  if (destroy != 0) delete child;
  return QMErrors::NoError;
}
