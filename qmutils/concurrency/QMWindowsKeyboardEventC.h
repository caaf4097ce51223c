// A keyboard message as an event: a copy of the MSG that a program took from its queue.
//
//   void OnEvent(IQMEventBase& event) override {
//     if (auto* key = dynamic_cast<QMWindowsKeyboardEventC*>(&event)) show(MSG(*key).wParam);
//   }
//
// Used by one thread at a time; cannot fail.
#pragma once

#include "qmutils/concurrency/QMObjectEventC.h"
#include "qmutils/platform/types.h"

class QMUTILS_API QMWindowsKeyboardEventC : public QMObjectEventC {
 public:
  static const CRuntimeClass classQMWindowsKeyboardEventC;

  explicit QMWindowsKeyboardEventC(const MSG& message) : m_Message(message) {}
  /// Null leaves all fields of the message 0.
  explicit QMWindowsKeyboardEventC(const MSG* message)
      : m_Message(message != nullptr ? *message : MSG{}) {}

  const CRuntimeClass* GetRuntimeClass() const override;

  /// A copy of the message.
  operator MSG() const { return m_Message; }

 private:
  MSG m_Message;
};
