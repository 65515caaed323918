// Command 1: bring the managed interfaces in line with the framework's list.
#pragma once

#include <string>
#include <vector>

void updateInterfaces(const char* list);
int addInterfaces(const char* name);
int removeInterfaces(const char* name);

// The names of the command being handled and of the previous one.
extern std::vector<std::string> interfacelist;
extern std::vector<std::string> preinterfacelist;
