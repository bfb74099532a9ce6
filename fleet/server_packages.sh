# shellcheck shell=sh
# Sourced by scripts that want the database servers here, but no service: needs install_packages of scripts/packages.sh.

# install_servers: installs ClickHouse as Debian packages it. A service that comes with that is neither started nor enabled;
# one that was there before stays as it is.
install_servers() {
    if dpkg-query -W -f '${Status}' clickhouse-server 2>/dev/null | grep -q 'ok installed'; then
        install_packages clickhouse-server clickhouse-client
        return
    fi
    sudo=
    [ "$(id -u)" = 0 ] || ! command -v sudo >/dev/null || sudo=sudo
    # A unit that is masked is not started by its package. At runtime only: whatever happens here, a reboot undoes it.
    [ ! -d /run/systemd/system ] || $sudo systemctl mask --runtime --quiet clickhouse-server.service
    installed=0
    install_packages clickhouse-server clickhouse-client || installed=$?
    [ ! -d /run/systemd/system ] || $sudo systemctl unmask --runtime --quiet clickhouse-server.service
    ! command -v systemctl >/dev/null || $sudo systemctl disable --quiet clickhouse-server.service 2>/dev/null || true
    return $installed
}
