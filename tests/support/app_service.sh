# Sourced by the tests that run the printer application as its shipped unit
# does, inside sandbox.sh's mount namespace: a copy of /etc with the unit's
# user and groups, an admin "boss" (group lpadmin) and a user "joe" (not an
# admin), both with passwords for the application's PAM service ("<name>-pw");
# the unit's directories on tmpfs; then `app_start PREFIX OPTIONS...` runs the
# unit's ExecStart as its user (PREFIX: a netns exec, or nothing) in the
# background, its log in $w/app.log.
#   needs: $src (the checkout), $build (its build directory), $w (this test's)
mkdir -p "$w/etc" && cp -a /etc/. "$w/etc" && mount --bind "$w/etc" /etc
mountpoint -q /run || mount -t tmpfs -o mode=0755 ostra-run /run
mount -t tmpfs -o mode=0755 ostra-lib /var/lib
systemd-sysusers "$src/app/ostra-printer-app.sysusers"
systemd-tmpfiles --create "$src/app/ostra-printer-app.tmpfiles"
cp "$src/app/ostra-printer-app.pam" /etc/pam.d/ostra-printer-app
useradd -G lpadmin boss && useradd joe
for u in boss joe; do echo "$u:$(openssl passwd -6 $u-pw)"; done >/etc/ostra-printer-app/passwd
install -d -o ostra-printer-app -g ostra-printer-app -m 0700 /var/lib/ostra-printer-app
unit=$build/ostra-printer-app.service
app_start() {
  prefix=$1 && shift
  # shellcheck disable=SC2046 # the unit's words, as systemd splits them
  $prefix setpriv --reuid=ostra-printer-app --regid=ostra-printer-app --init-groups \
    --no-new-privs --inh-caps=-all env $(sed -n 's/^Environment=//p' "$unit") \
    "$build/ostra-printer-app" $(sed -n 's/^ExecStart=[^ ]* //p' "$unit") "$@" 2>"$w/app.log" &
}
