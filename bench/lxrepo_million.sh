#!/usr/bin/env bash
# Imports a generated CSV file of 1,000,000 rows and 10 columns with lxrepo against
# lxrepo-server on loopback and reports lxrepo's peak resident memory and time
# (/usr/bin/time -v). Not part of CI.
#
#   bench/lxrepo_million.sh [BUILD_DIR]     (default: build/dev, with lxrepo and lxrepo-server built)
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$root/build/dev}"
rows="${LXREPO_BENCH_ROWS:-1000000}"
# shellcheck source=scripts/loopback-servers.sh
source "$root/scripts/loopback-servers.sh"

# Ten columns: a unique integer id (a million distinct values), an ISO date, a text of 40
# values, a customer of 20,000, integers, decimals, a code kept as text, a non-ASCII city, a
# flag and a note that is mostly empty. Deterministic: awk's srand with a fixed seed.
awk -v rows="$rows" 'BEGIN {
  srand(7)
  split("Zürich,São Paulo,Kraków,Malmö,Orléans,Tōkyō,Québec,Açores", city, ",")
  print "id,day,category,customer,quantity,price,code,city,flag,note"
  for (i = 1; i <= rows; i++) {
    printf "%d,2024-%02d-%02d,cat %d,\"Customer %d, Ltd\",%d,%.2f,C%05d,%s,%s,%s\n",
      i, 1 + int(rand() * 12), 1 + int(rand() * 28), int(rand() * 40), int(rand() * 20000),
      int(rand() * 1000), rand() * 500, int(rand() * 90000), city[1 + int(rand() * 8)],
      (rand() < 0.5 ? "yes" : "no"), (rand() < 0.9 ? "" : "\"checked by \"\"QA\"\"\"")
  }
}' >"$work/million.csv"
echo "file: $(du -h "$work/million.csv" | cut -f1), $rows rows"

start_server service --role service --database "$work/repo.sqlite"
service="http://127.0.0.1:$port"
start_server proxy --role proxy --database "$work/proxy.sqlite" --proxy-allow "$service"
proxy="http://127.0.0.1:$port"

if ! /usr/bin/time -v "$build/tools/lxrepo" import "$work/million.csv" --server "$service" \
  --proxy "$proxy" 2>"$work/time.txt"; then
  cat "$work/time.txt" >&2
  exit 1
fi
grep -E 'Maximum resident set size|Elapsed \(wall clock\)|User time|System time' "$work/time.txt"
sqlite3 "$work/repo.sqlite" 'select count(*) || " rows in SQLite" from million'
