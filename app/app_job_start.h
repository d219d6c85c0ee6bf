// One processing thread per job: PAPPL 1.3.1 can hand one pending job to two
// threads, or start a job just cancelled; the application closes both races.
#ifndef OSTRA_APP_APP_JOB_START_H
#define OSTRA_APP_APP_JOB_START_H

#include <pappl/pappl.h>

// Hooks the system's job starts; false, with a log line, when the PAPPL
// library in use does not have the functions this relies on.
bool appGuardJobStarts(pappl_system_t* system);

#endif  // OSTRA_APP_APP_JOB_START_H
