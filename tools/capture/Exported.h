// Packets of our own recorder (link type 252), one at a time.
#pragma once

#include "tools/capture/Capture.h"
#include "tools/capture/Packets.h"

namespace capture {

// Which part of which recording it is.
void readPart(std::string_view comment, Capture& capture);
// What an interface block says of a HID interface. False: it stands for the client.
bool readInterface(const Link& link, Interface& interface);
// False when the packet is none of the recorder's. The event's interface is left to the caller.
bool readExported(const Packet& packet, Event& event);

}  // namespace capture
