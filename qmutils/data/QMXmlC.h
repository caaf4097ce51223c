// The library's XML dialect: a tree of elements with properties, text and child elements. Classes
// that persist themselves write and read their state through it.
//
// It knows elements, properties in double quotes, text, comments and empty elements, and nothing
// else: no processing instructions, no entities, no CDATA. Text and values are written as they
// stand, so they must not contain what would end them.
//
//   QMXmlC root("Settings", 0, nullptr);
//   QMXmlC* item = nullptr;
//   root.AddChild("Item", &item);
//   item->AddProperty("Name", "Drum");
//   root.Save("settings.xml");
//
// A tree belongs to one thread at a time. No operation recurses, so depth is limited by memory
// only; but the written form of n nested elements has about n * n blanks. Results are codes: 2001
// out of memory, 2007 nothing there or the data ended, 2100 a node without a name, 2108 a child
// that could not be linked, 9204 badly formed XML, 1001 a file that does not open, 33666 a stream
// or disk that takes no more. Nothing throws: a node for whose name or content there is no memory
// is left without, and the failure is logged.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/platform/export.h"

class CDC;
class CRect;

namespace qm {
class XmlReader;
class XmlWriter;
}  // namespace qm

class QMUTILS_API QMXmlC {
 public:
  /// Receives the report of a parse error: "ERROR:" text, ", at line:" n ", offset:" n.
  class QMUTILS_API ErrorListenerC {
   public:
    virtual ~ErrorListenerC() = default;
    virtual void OnError(const char* text) = 0;
  };

  /// `name` is copied; null leaves the node without a name. `strict` non-zero: no white space is
  /// skipped behind "<". `listener` (may be null, not owned) must outlive the node.
  QMXmlC(const char* name, int strict, ErrorListenerC* listener);
  /// A deep copy; it belongs to no tree.
  QMXmlC(const QMXmlC& other);
  QMXmlC& operator=(const QMXmlC&) = delete;
  /// Deletes the children, and leaves the tree the node belongs to.
  virtual ~QMXmlC();

  /// Appends a node made with new, which this node owns from now on. The child's parent stays as it
  /// was, so GetParent() and FindAbove() do not lead here; only the reader sets parents. 2108 for
  /// this node itself, one of its ancestors, or a node that belongs to a tree already.
  QMErrors::QMErrorT AddChild(QMXmlC& child);
  /// Creates a child with the same strictness and listener, linked as above; it comes back through
  /// `out` (may be null). 2100 for a null name, 2001.
  QMErrors::QMErrorT AddChild(const char* name, QMXmlC** out);
  /// Appends a property; null texts count as empty. 0 or 2001.
  QMErrors::QMErrorT AddProperty(const char* name, const char* value);

  /// The value of the first property of that name (case matters), or null. Valid while the node
  /// lives.
  const char* GetProperty(const char* name) const;
  /// Writes the value and a NUL character, in the stream's format; 2007 when there is no such
  /// property.
  QMErrors::QMErrorT GetProperty(const char* name, std::ostream& os) const;

  /// This node when it has that name and is not `skip`. Else, with `recurse` non-zero, the first
  /// such descendant, depth first; "a.b" finds "a" and from there "b". Null when there is none.
  QMXmlC* Find(const char* name, int recurse, const QMXmlC* skip);
  /// The nearest ancestor of that name.
  QMXmlC* FindAbove(const char* name);

  QMXmlC* GetFirstChild() const { return m_pFirstChild; }
  /// The next child of the same parent, or null.
  QMXmlC* GetNextSibling() const { return m_pNext; }
  QMXmlC* GetParent() const { return m_pParent; }
  void GetObjectName(std::ostream& os) const;
  /// The element's text; empty when there is none.
  const std::string& GetText() const { return m_Text; }
  /// Replaces the text; null removes it.
  QMErrors::QMErrorT SetText(const char* text);
  /// The writer then puts each property on a line of its own.
  void ForceNewlineInOutput() { m_bForceNewline = true; }

  /// Takes a child out of this node and deletes it if asked. Null stands for this node itself,
  /// which leaves its parent if it has one (see AddChild()). 2006 when `child` is no child of this
  /// node.
  QMErrors::QMErrorT RemoveChild(QMXmlC* child, int destroy);

  /// Writes the tree; each level is indented by one blank more, lines end with CR LF.
  QMErrors::QMErrorT ToStream(std::ostream& os, unsigned indent) const;
  /// Reads one element with all it contains into this node, whose name it replaces; properties,
  /// text and children are added to those it has. The stream then stands behind the element. On
  /// failure what was read so far stays, and the error is reported once, with line and offset from
  /// the beginning of the stream, or from where reading began if the stream cannot go back. The
  /// stream is at its end if the data ended, and bad if it failed.
  QMErrors::QMErrorT FromStream(std::istream& is);

  QMErrors::QMErrorT Load(const char* file);
  /// Replaces the file in one step: a full disk or a kill leaves the old file or the new one.
  QMErrors::QMErrorT Save(const char* file) const;

  /// Draws the lines that ToStream(indent) writes one below the other, a font's height apart, with
  /// tabs expanded and cut at the edges of `rect`. Lines below the rectangle are not even produced,
  /// so a screenful costs little however large the tree is. The rectangle's top is moved below the
  /// last line, where the caller goes on. 2100 also without device or rectangle; a device that
  /// fails gives its system error.
  QMErrors::QMErrorT PrettyXML(CDC* dc, unsigned indent, CRect* rect) const;

 protected:
  class PropertiesC;
  /// The entry itself; 2007 when there is none of that name.
  QMErrors::QMErrorT GetProperty(const char* name, PropertiesC** entry) const;

 private:
  friend class qm::XmlReader;
  friend class qm::XmlWriter;

  bool HasName(const char* name) const { return m_bNamed && m_ObjectName == name; }
  void AppendProperty(std::unique_ptr<PropertiesC> property);
  void SetObjectName(const char* name);
  void CopyContent(const QMXmlC& other);
  void Link(QMXmlC* child);
  void Unlink(QMXmlC* child);
  void DeleteChildren();
  QMXmlC* FindByName(const std::string& name, const QMXmlC* skip);

  QMXmlC* m_pNext = nullptr;
  QMXmlC* m_pPrevious = nullptr;
  std::string m_ObjectName;
  bool m_bNamed = false;
  bool m_bStrict;
  bool m_bForceNewline = false;
  std::unique_ptr<PropertiesC> m_pProperties;
  PropertiesC* m_pLastProperty = nullptr;
  std::string m_Text;
  QMXmlC* m_pParent = nullptr;  // as the reader sets it
  QMXmlC* m_pOwner = nullptr;   // the node whose child list this one stands in
  QMXmlC* m_pFirstChild = nullptr;
  QMXmlC* m_pLastChild = nullptr;
  ErrorListenerC* m_pListener;
};

/// One property; entries stand in the order in which they were added.
class QMXmlC::PropertiesC {
 public:
  PropertiesC() = default;
  PropertiesC(std::string name, std::string value)
      : m_Name(std::move(name)), m_Value(std::move(value)) {}
  ~PropertiesC();

  std::unique_ptr<PropertiesC> m_pNext;
  std::string m_Name;
  std::string m_Value;
};

// The first two fail the stream when the tree cannot be written or read.
QMUTILS_API std::ostream& operator<<(std::ostream& os, const QMXmlC& node);
QMUTILS_API std::istream& operator>>(std::istream& is, QMXmlC& node);
QMUTILS_API QMLogStreamC& operator<<(QMLogStreamC& log, const QMXmlC& node);
