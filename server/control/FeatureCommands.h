// Commands 9 to 14: link selection for a list of apps, a voice call, the
// framework's RTT report, and game mode with its RTT check.
#pragma once

void StartSlsServer(const char* uids);           // 9: gaming UID list
void StopSlsServer();                            // 10
void setVoipStatus(const char* text);            // 11: voice app UID, or 0 when the call ends
void updateSlsInterfacesRtt(const char* text);   // 12: RTT in ms
void setGameAiModeEnable(const char* text);      // 13: the game's UIDs, or 0
void setGameAiModeCheckRtt(const char* text);    // 14: 1 or 0
