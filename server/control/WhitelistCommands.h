// Commands 2, 5 and 7: the SLA, dual-Wi-Fi and dual-data UID whitelists.
#pragma once

// Each takes the command's payload: a UID list ("10123,10456"), or "NULL" for an
// empty list. A payload equal to the previous one of the same command is ignored.
void setUidWhitelist(const char* text);
void setDWUidWhitelist(const char* text);
void setDDUidWhitelist(const char* text);
