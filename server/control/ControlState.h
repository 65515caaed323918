// State shared by the control thread's command handlers.
#pragma once

class Parameters;

// The store recorded by createSocketThreads(); null until then. The handlers of
// every control command use it and do nothing when it is null.
Parameters* controlParameters();
void setControlParameters(Parameters* params);
