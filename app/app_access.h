// Who may do what to the printer application: anyone who reaches it may print,
// only an admin may change it, and no client chooses where the server writes.
#ifndef OSTRA_APP_APP_ACCESS_H
#define OSTRA_APP_APP_ACCESS_H

#include <pappl/pappl.h>

#include <string>

#include "app/ostra_app.h"

// PAPPL's authorization callback: printing passes, administration needs a
// Basic login that the PAM service accepts, from a member of the admin group.
http_status_t appAuthorize(pappl_client_t* client, const char* group, gid_t groupId, void* access);

// Whether a printer may use the device `uri`; if not, `why` says why.
bool appDeviceAllowed(const std::string& uri, const AppAccess& access, std::string* why);

// Listens on the control socket at `path`, through which the command line
// administers the server. Its directory is the gate: owner and admin group
// only (as root the directory is made so, and `link`, PAPPL's own place for
// the socket, points to it). False with `error` set when it cannot be made
// safe.
bool appListenControlSocket(pappl_system_t* system, const std::string& path,
                            const std::string& link, const AppAccess& access, std::string* error);

#endif  // OSTRA_APP_APP_ACCESS_H
