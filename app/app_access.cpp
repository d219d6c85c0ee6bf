#include "app/app_access.h"

#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace {

struct Login {
  const char* user;
  const char* password;
};

// Answers PAM's prompts with the login a client sent.
int converse(int count, const struct pam_message** messages, struct pam_response** responses,
             void* data) {
  const auto* login = static_cast<const Login*>(data);
  auto* replies =
      static_cast<pam_response*>(calloc(static_cast<size_t>(count), sizeof(pam_response)));
  if (replies == nullptr)
    return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    if (messages[i]->msg_style == PAM_PROMPT_ECHO_ON)
      replies[i].resp = strdup(login->user);
    else if (messages[i]->msg_style == PAM_PROMPT_ECHO_OFF)
      replies[i].resp = strdup(login->password);
  }
  *responses = replies;
  return PAM_SUCCESS;
}

bool pamAccepts(const std::string& service, const Login& login, const char* host) {
  // Client threads log in side by side, and PAM modules need not be thread
  // safe (the password file's module calls crypt()).
  static std::mutex one;
  std::lock_guard<std::mutex> lock(one);
  pam_conv conversation{converse, const_cast<Login*>(&login)};
  pam_handle_t* pam = nullptr;
  int status = pam_start(service.c_str(), login.user, &conversation, &pam);
  if (status == PAM_SUCCESS)
    status = pam_set_item(pam, PAM_RHOST, host);
  if (status == PAM_SUCCESS)
    status = pam_authenticate(pam, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
  if (status == PAM_SUCCESS)
    status = pam_acct_mgmt(pam, PAM_SILENT);
  if (pam != nullptr)
    pam_end(pam, status);
  return status == PAM_SUCCESS;
}

gid_t groupId(const std::string& name) {
  struct group entry, *found = nullptr;
  std::vector<char> buffer(16384);
  if (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr)
    return static_cast<gid_t>(-1);
  return found->gr_gid;
}

bool inGroup(const char* user, const std::string& group) {
  const gid_t wanted = groupId(group);
  struct passwd entry, *found = nullptr;
  std::vector<char> buffer(16384);
  if (wanted == static_cast<gid_t>(-1) ||
      getpwnam_r(user, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
    return false;
  int count = 64;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  if (getgrouplist(user, found->pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<size_t>(count));
    if (getgrouplist(user, found->pw_gid, groups.data(), &count) < 0)
      return false;
  }
  for (int i = 0; i < count; ++i) {
    if (groups[static_cast<size_t>(i)] == wanted)
      return true;
  }
  return false;
}

// A job's own operations (Cancel-Job, Get-Job-Attributes) reach the admin
// check when the client has not logged in; the name that sent the job may
// still act on it, as IPP printers do for anonymous clients.
bool ownsJob(pappl_client_t* client) {
  pappl_job_t* job = papplClientGetJob(client);
  ipp_t* request = papplClientGetRequest(client);
  const char* name =
      ippGetString(ippFindAttribute(request, "requesting-user-name", IPP_TAG_NAME), 0, nullptr);
  const char* owner = job != nullptr ? papplJobGetUsername(job) : nullptr;
  return name != nullptr && owner != nullptr && strcmp(name, owner) == 0;
}

std::string directoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? "/" : slash == std::string::npos ? "." : path.substr(0, slash);
}

// The socket keeps mode 0660; members of the admin group reach it through an
// access list when the server cannot give the socket their group.
bool grantGroup(const std::string& path, gid_t group) {
  if (getuid() == 0)
    return chown(path.c_str(), static_cast<uid_t>(-1), group) == 0;
  const std::string text = "u::rw-,g::rw-,o::---,m::rw-,g:" + std::to_string(group) + ":rw-";
  acl_t acl = acl_from_text(text.c_str());
  const bool ok = acl != nullptr && acl_set_file(path.c_str(), ACL_TYPE_ACCESS, acl) == 0;
  if (acl != nullptr)
    acl_free(acl);
  return ok;
}

}  // namespace

http_status_t appAuthorize(pappl_client_t* client, const char* group, gid_t /*groupId*/,
                           void* data) {
  const auto* access = static_cast<const AppAccess*>(data);
  // PAPPL asks with the printer's print group (none is set) for printing and
  // with the admin group for everything else.
  if (group == nullptr || access->adminGroup != group || ownsJob(client))
    return HTTP_STATUS_CONTINUE;
  http_t* http = papplClientGetHTTP(client);
  if (access->openAdmin && httpAddrLocalhost(httpGetAddress(http)))
    return HTTP_STATUS_CONTINUE;
  const char* authorization = httpGetField(http, HTTP_FIELD_AUTHORIZATION);
  if (authorization == nullptr || *authorization == '\0')
    return HTTP_STATUS_UNAUTHORIZED;
  if (strncmp(authorization, "Basic ", 6) != 0) {
    papplLogClient(client, PAPPL_LOGLEVEL_ERROR, "Only Basic logins are taken.");
    return HTTP_STATUS_UNAUTHORIZED;
  }
  authorization += 6;
  while (*authorization == ' ')
    ++authorization;
  char text[512];
  int length = sizeof(text);
  httpDecode64_2(text, &length, authorization);
  char* colon = strchr(text, ':');
  if (colon == nullptr) {
    papplLogClient(client, PAPPL_LOGLEVEL_ERROR, "A login without a password was sent.");
    return HTTP_STATUS_UNAUTHORIZED;
  }
  *colon = '\0';
  // No user name has control characters; they would only forge log lines.
  if (std::any_of(text, colon, [](char c) { return static_cast<unsigned char>(c) < ' '; })) {
    papplLogClient(client, PAPPL_LOGLEVEL_WARN, "A login name with control characters refused.");
    return HTTP_STATUS_UNAUTHORIZED;
  }
  const Login login{text, colon + 1};
  const bool accepted = pamAccepts(access->authService, login, papplClientGetHostName(client));
  explicit_bzero(colon + 1, strlen(colon + 1));
  if (!accepted) {
    papplLogClient(client, PAPPL_LOGLEVEL_WARN, "Login of \"%s\" refused.", text);
    return HTTP_STATUS_UNAUTHORIZED;
  }
  if (!inGroup(text, access->adminGroup)) {
    papplLogClient(client, PAPPL_LOGLEVEL_WARN, "\"%s\" is not in the admin group \"%s\".", text,
                   access->adminGroup.c_str());
    return HTTP_STATUS_FORBIDDEN;
  }
  papplLogClient(client, PAPPL_LOGLEVEL_INFO, "Administration by \"%s\".", text);
  return HTTP_STATUS_CONTINUE;
}

bool appDeviceAllowed(const std::string& uri, const AppAccess& access, std::string* why) {
  char scheme[32], user[256], host[256], resource[1024];
  int port = 0;
  if (httpSeparateURI(HTTP_URI_CODING_ALL, uri.c_str(), scheme, sizeof(scheme), user, sizeof(user),
                      host, sizeof(host), &port, resource, sizeof(resource)) < HTTP_URI_STATUS_OK) {
    *why = "not a device URI";
    return false;
  }
  if (strcasecmp(scheme, "file") != 0)
    return true;
  if (access.fileDeviceDirectory.empty()) {
    *why = "file devices are off (the server takes them only inside its file-device-directory)";
    return false;
  }
  // The file device drops options after '?' and reads no more than 255
  // characters of the path: longer ones are refused rather than guessed at.
  if (char* options = strchr(resource, '?'))
    *options = '\0';
  // A file that is not there yet is judged by the directory it would be in.
  char base[PATH_MAX], target[PATH_MAX];
  const std::string dir = directoryOf(resource), name = resource + dir.size();
  std::string resolved;
  if (strlen(resource) <= 255 && realpath(access.fileDeviceDirectory.c_str(), base) != nullptr) {
    if (realpath(resource, target) != nullptr)
      resolved = target;
    else if (name != "/.." && name != "/." && realpath(dir.c_str(), target) != nullptr)
      resolved = target + name;
  }
  if (resolved.empty()) {
    *why = "no such place";
    return false;
  }
  const size_t n = strlen(base);
  if (resolved.compare(0, n, base) != 0 || (resolved.size() > n && resolved[n] != '/')) {
    *why = "outside the file-device-directory " + access.fileDeviceDirectory;
    return false;
  }
  return true;
}

bool appListenControlSocket(pappl_system_t* system, const std::string& path,
                            const std::string& link, const AppAccess& access, std::string* error) {
  const std::string dir = directoryOf(path);
  const gid_t admins = groupId(access.adminGroup);
  const bool root = getuid() == 0;
  const mode_t mode = root && admins != static_cast<gid_t>(-1) ? 0750 : 0700;
  if (mkdir(dir.c_str(), mode) == 0 &&
      ((mode == 0750 && chown(dir.c_str(), 0, admins) != 0) || chmod(dir.c_str(), mode) != 0)) {
    *error = dir + ": " + strerror(errno);
    return false;
  }
  // The directory is the gate: the socket itself is made open to all for a
  // moment, before its mode can be set. Root takes the service's directory as
  // it is (the service does not run while root's server holds its port).
  struct stat info;
  if (lstat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) ||
      (info.st_uid != geteuid() && info.st_uid != 0 && !root) || (info.st_mode & S_IRWXO) != 0 ||
      ((info.st_mode & S_IRWXG) != 0 && info.st_gid != admins && info.st_gid != getegid())) {
    *error = dir + " must be a directory of this user or root that other users cannot enter";
    return false;
  }
  if (!papplSystemAddListeners(system, path.c_str())) {
    *error = "unable to listen on " + path;
    return false;
  }
  if (chmod(path.c_str(), 0660) != 0) {
    *error = path + ": " + strerror(errno);
    return false;
  }
  if (admins != static_cast<gid_t>(-1) && !grantGroup(path, admins))
    papplLog(system, PAPPL_LOGLEVEL_WARN,
             "Members of \"%s\" cannot use %s (%s): only its owner and root can.",
             access.adminGroup.c_str(), path.c_str(), strerror(errno));
  // The command line looks for the server at PAPPL's own place.
  if (link.empty() || link == path)
    return true;
  if (lstat(link.c_str(), &info) == 0 && (S_ISLNK(info.st_mode) || S_ISSOCK(info.st_mode)) &&
      info.st_uid == geteuid())
    unlink(link.c_str());
  if (symlink(path.c_str(), link.c_str()) != 0 && errno != EEXIST && root) {
    *error = link + ": " + strerror(errno);
    return false;
  }
  return true;
}
