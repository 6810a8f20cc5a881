// A recording as a sequence diagram.
#pragma once

#include <string>
#include <vector>

#include "tools/tevrolctl/event.h"

namespace tevrolctl {

// SVG with one lane for each process and one row for each event, on white, in its natural size.
std::string Diagram(const std::vector<Event>& events);

}  // namespace tevrolctl
