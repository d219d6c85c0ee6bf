# Sourced by the tests that run the printer application as its shipped unit
# does, inside sandbox.sh's mount namespace: a copy of /etc with the unit's
# user and groups, an admin "boss" (group lpadmin) and a user "joe" (not an
# admin), both with passwords for the application's PAM service ("<name>-pw");
# the unit's directories on tmpfs; two hosts, network namespaces "shop"
# (10.231.0.1) and "phone" (10.231.0.2) joined by a veth pair. Then
# `app_start OPTIONS...` runs the unit's ExecStart as its user in "shop", in
# the background (process $app_pid), its log in $w/app.log.
#   needs: $src (the checkout), $build (its build directory), $w (this test's)
mkdir -p "$w/system-etc" && cp -a /etc/. "$w/system-etc" && mount --bind "$w/system-etc" /etc
mountpoint -q /run || mount -t tmpfs -o mode=0755 ostra-run /run
mount -t tmpfs -o mode=0755 ostra-lib /var/lib
systemd-sysusers "$src/app/ostra-printer-app.sysusers"
systemd-tmpfiles --create "$src/app/ostra-printer-app.tmpfiles"
cp "$src/app/ostra-printer-app.pam" /etc/pam.d/ostra-printer-app
useradd -G lpadmin boss && useradd joe
for u in boss joe; do echo "$u:$(openssl passwd -6 $u-pw)"; done >/etc/ostra-printer-app/passwd
install -d -o ostra-printer-app -g ostra-printer-app -m 0700 /var/lib/ostra-printer-app
ip netns add shop && ip netns add phone
ip -n shop link add veth0 type veth peer name veth1 netns phone
ip -n shop addr add 10.231.0.1/24 dev veth0 && ip -n phone addr add 10.231.0.2/24 dev veth1
for dev in shop:veth0 phone:veth1 shop:lo phone:lo; do ip -n ${dev%:*} link set ${dev#*:} up; done
unit=$build/ostra-printer-app.service
app_start() {
  # shellcheck disable=SC2046 # the unit's words, as systemd splits them
  ip netns exec shop setpriv --reuid=ostra-printer-app --regid=ostra-printer-app --init-groups \
    --no-new-privs --inh-caps=-all env $(sed -n 's/^Environment=//p' "$unit") \
    "$build/ostra-printer-app" $(sed -n 's/^ExecStart=[^ ]* //p' "$unit") "$@" 2>"$w/app.log" &
  app_pid=$!  # each command execs the next: this is the server
}
