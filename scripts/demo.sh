#!/usr/bin/env bash
# The README's demo: on a fresh Debian 12 machine, installs what is missing, builds lxrepo and
# lxrepo-server, starts the repository service and the authentication proxy on loopback with a
# SQLite file, imports examples/sales.csv through lxrepo, prints the table back from SQLite and
# stops the servers again.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build/demo"
# shellcheck source=scripts/loopback-servers.sh
source "$root/scripts/loopback-servers.sh"

echo "== 1. dependencies (apt packages only; the demo needs no Node)"
TRI_SKIP_NODE=1 "$root/scripts/install-dependencies.sh"

echo "== 2. build lxrepo and lxrepo-server in $build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTRI_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target lxrepo lxrepo-server

echo "== 3. the repository service (SQLite file $work/repo.sqlite) and its proxy on loopback"
start_server service --role service --database "$work/repo.sqlite"
service="http://127.0.0.1:$port"
start_server proxy --role proxy --database "$work/proxy.sqlite" --proxy-allow "$service"
proxy="http://127.0.0.1:$port"
echo "service $service, proxy $proxy"

echo "== 4. lxrepo import examples/sales.csv"
"$build/tools/lxrepo" import "$root/examples/sales.csv" --server "$service" --proxy "$proxy" \
  --class demo --description "Orders of 2024, the demo's sample"

echo "== 5. the table as SQLite holds it"
sqlite3 -header -column "$work/repo.sqlite" 'select * from sales limit 5'
sqlite3 "$work/repo.sqlite" 'select count(*) || " rows" from sales'
sqlite3 -header -column "$work/repo.sqlite" \
  "select name, table_id, table_class, record_count, imported_by, client from lxrepo_tables"

echo "== 6. stopping the servers"
