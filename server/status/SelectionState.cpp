// Reading the link-selection engine for the status snapshot.

#include "status/SelectionState.h"

namespace vord {
namespace status {

// The selection engine is not part of this build yet, so there is nothing to read.
// TODO(status): read it through SmartLinkSelection::isInstance() and
// SmartLinkSelection::trySnapshotState() once link selection is built.
EngineRead readSelectionEngine(EngineState* /*out*/) {
    return EngineRead::None;
}

}  // namespace status
}  // namespace vord
