// What a switch calls to destroy one gaming UID's sockets, so that the app
// reconnects over the new link.
#pragma once

// Destroys every socket of the UID given as decimal text (sock_diag); the number
// destroyed, or a negative value on failure.
int killSocketsForUID(const char* uid);
