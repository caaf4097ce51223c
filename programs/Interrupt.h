// The user's wish that a program ends: Ctrl-C, or a request to terminate.
#pragma once

namespace programs {

/// From now on interrupts and requests to terminate are only noted.
void noteInterrupts();
/// Whether one came. Any thread may ask.
bool interrupted();

}  // namespace programs
