#!/usr/bin/env bash
# Times a whole `lxrepo import` of a generated CSV file (through the proxy to lxrepo-server on
# loopback, fresh servers and databases each run) and `sqlite3 DB ".import --csv FILE t"` of the
# same file into a new database, in one run. Prints each run's wall time, each process's CPU
# (user+sys) and peak resident memory, then the medians and the ratio lxrepo/sqlite3. Not part of CI.
#
#   bench/import_side_by_side.sh [BUILD_DIR]    (default: build/release, lxrepo and lxrepo-server built)
#   LXREPO_BENCH_ROWS=1000000 LXREPO_BENCH_REPEAT=5
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$root/build/release}"
rows="${LXREPO_BENCH_ROWS:-1000000}"
repeat="${LXREPO_BENCH_REPEAT:-5}"
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
echo "file: $(du -h "$work/million.csv" | cut -f1), $rows rows, $repeat runs"

ticks="$(getconf CLK_TCK)"
# CPU seconds (user+sys) and peak resident MB of a live process, from /proc.
proc_usage() {
  local stat cpu
  stat="$(cut -d ')' -f 2- "/proc/$1/stat")"
  cpu="$(awk -v t="$ticks" '{ printf "%.2f", ($12 + $13) / t }' <<<"$stat")"
  echo "$cpu $(awk '/^VmHWM/ { printf "%.0f", $2 / 1024 }' "/proc/$1/status")"
}
# Wall s, CPU s (user+sys) and peak resident MB of a command, from /usr/bin/time.
timed() {
  /usr/bin/time -f '%e %U %S %M' -o "$work/time.txt" "$@" >/dev/null
  awk '{ printf "%.2f %.2f %.0f\n", $1, $2 + $3, $4 / 1024 }' "$work/time.txt"
}
median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2) }'; }

printf '%-4s %26s %18s %14s %26s %8s\n' run 'lxrepo wall/cpu/MB' 'service cpu/MB' 'proxy cpu/MB' \
  'sqlite3 wall/cpu/MB' ratio
: >"$work/runs.txt"
for run in $(seq "$repeat"); do
  rm -f "$work"/*.sqlite
  start_server service --role service --database "$work/repo.sqlite"
  service_pid="${pids[-1]}" service="http://127.0.0.1:$port"
  start_server proxy --role proxy --database "$work/proxy.sqlite" --proxy-allow "$service"
  proxy_pid="${pids[-1]}" proxy="http://127.0.0.1:$port"
  read -r lx_wall lx_cpu lx_mb < <(timed "$build/tools/lxrepo" import "$work/million.csv" \
    --server "$service" --proxy "$proxy")
  imported="$(sqlite3 "$work/repo.sqlite" 'select count(*) from million')"
  [ "$imported" = "$rows" ] || { echo "lxrepo imported $imported rows, not $rows" >&2; exit 1; }
  read -r sv_cpu sv_mb < <(proc_usage "$service_pid")
  read -r px_cpu px_mb < <(proc_usage "$proxy_pid")
  kill "$service_pid" "$proxy_pid"
  wait "$service_pid" "$proxy_pid" 2>/dev/null || true
  pids=()
  read -r sq_wall sq_cpu sq_mb < <(timed sqlite3 "$work/direct.sqlite" ".import --csv $work/million.csv t")
  ratio="$(awk -v a="$lx_wall" -v b="$sq_wall" 'BEGIN { printf "%.2f", a / b }')"
  echo "$lx_wall $lx_cpu $lx_mb $sv_cpu $sv_mb $px_cpu $px_mb $sq_wall $sq_cpu $sq_mb $ratio" >>"$work/runs.txt"
  printf '%-4s %26s %18s %14s %26s %8s\n' "$run" "$lx_wall s $lx_cpu s $lx_mb" "$sv_cpu s $sv_mb" \
    "$px_cpu s $px_mb" "$sq_wall s $sq_cpu s $sq_mb" "$ratio"
done
m() { awk -v c="$1" '{ print $c }' "$work/runs.txt" | median; }
printf '%-4s %26s %18s %14s %26s %8s\n' median "$(m 1) s $(m 2) s $(m 3)" "$(m 4) s $(m 5)" \
  "$(m 6) s $(m 7)" "$(m 8) s $(m 9) s $(m 10)" \
  "$(awk -v a="$(m 1)" -v b="$(m 8)" 'BEGIN { printf "%.2f", a / b }')"
echo "wall and CPU (user+sys) in seconds, peak resident memory in MB; ratio = lxrepo wall / sqlite3 wall"
