// vordctl status: the daemon's status snapshot as a table or JSON.
#pragma once

// Runs "vordctl status" with the words after "status"; returns the exit status.
int runStatus(int argc, char** argv);
