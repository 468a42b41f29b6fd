// Several lumivane processes, started by mpirun, that render one scene
// together: every process prepares the whole scene, renders every size-th
// pass, casts every size-th photon of each light, and rank 0 writes the
// combined images and prints the report.
#pragma once

#include <string>

// Joins the group when mpirun started this process among several (a process
// started otherwise, or alone, stays as it is). Ranks other than 0 send
// their report nowhere; the library's exchanges are set.
void joinGroup(int& argc, char**& argv);
// True when this process is one of a group.
bool inGroup();
// In a group: every process's problem with the scene ("" for none). True
// when all can render; otherwise rank 0 reports each process's problem as an
// error.
bool agreeToRender(const std::string& problem);
// Waits for every process and leaves the group. Rank 0 notes on standard
// error how long its exchanges took, and how long it waited for the others.
void leaveGroup();
