// Where PAPPL 1.3.1 itself is at fault: job starts that race, attribute lookups
// that collide, a page header the driver never sees, an answer that grows.
#ifndef OSTRA_APP_APP_PAPPL_FIXES_H
#define OSTRA_APP_APP_PAPPL_FIXES_H

#include <cups/raster.h>
#include <pappl/pappl.h>

// Installs the fixes for a system, whose events then also reach `events`;
// false, with a log line, when the PAPPL library in use lacks a function they
// rely on.
bool appFixPappl(pappl_system_t* system, pappl_event_cb_t events, void* data);

// The page header a client's PWG raster stream last gave on this thread, or
// null outside a streamed job: PAPPL hands a driver its own 8-bit header
// when the client's pages have fewer bits.
const cups_page_header2_t* appClientPageHeader();

#endif  // OSTRA_APP_APP_PAPPL_FIXES_H
