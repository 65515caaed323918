// Building and tearing down a lab: the two namespaces, the relay process, the
// addresses, routes and route-table names.
#pragma once

#include <string>
#include <vector>

#include "LabConfig.h"

namespace linklab {

// Builds lab `lab` with `links`; the main table's default route goes out of
// `defaultLink`. On failure tears down what was built and returns false.
bool labUp(const std::string& lab, const std::vector<LinkConfig>& links,
           const std::string& defaultLink, std::string& error);

// Stops the relay and every process inside the lab's namespaces, deletes the
// namespaces, /etc/netns/NAME and the run directory. Idempotent. Returns false
// when something could not be removed (described in `error`).
bool labDown(const std::string& lab, std::string& error);

// Whether anything of the lab exists (namespace, run directory, /etc entry).
bool labExists(const std::string& lab);

}  // namespace linklab
