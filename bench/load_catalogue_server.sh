#!/usr/bin/env bash
# Load benchmark of the real catalogue-server process: list pages under wrk, a 500 MiB download against nginx serving
# the same file, slow readers, a 500 MiB upload beside list traffic, and a new client next to 2,000 idle connections.
# Prints a table of figures and asserts nothing. Everything runs on 127.0.0.1 and stops by itself.
#
#   bench/load_catalogue_server.sh BUILD_DIR      (after: cmake --build BUILD_DIR --target bench_seed_catalogue)
set -euo pipefail

build=$(cd "${1:?usage: $0 BUILD_DIR}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
server_program=$build/bin/catalogue-server
seed_program=$build/bin/bench_seed_catalogue
nginx_program=/usr/sbin/nginx
for program in "$server_program" "$seed_program" "$nginx_program"; do
    [[ -x $program ]] || { echo "missing $program" >&2; exit 2; }
done
for tool in wrk curl python3 awk; do
    command -v "$tool" >/dev/null || { echo "missing $tool" >&2; exit 2; }
done

list_seconds=10
slow_readers=50
slow_rate=2M
slow_seconds=15
idle_connections=2000
new_client_requests=200

work=$(mktemp -d "${TMPDIR:-/tmp}/load-catalogue.XXXXXX")
started=()
# Forgets a process that has ended, so that cleanup never signals a recycled process id.
forget() {
    local keep=() pid
    for pid in "${started[@]}"; do [[ $pid == "$1" ]] || keep+=("$pid"); done
    started=("${keep[@]}")
}
cleanup() {
    local pid
    for pid in "${started[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
    for _ in $(seq 50); do
        local alive=0
        for pid in "${started[@]}"; do kill -0 "$pid" 2>/dev/null && alive=1; done
        ((alive)) || break
        sleep 0.1
    done
    for pid in "${started[@]}"; do kill -KILL "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Resident memory of the server in KiB.
server_rss() { awk '/^VmRSS:/ { print $2 }' "/proc/$server_pid/status" 2>/dev/null; }

# Records the server's peak resident memory into $1 every 50 ms until $work/stop-sampling appears (at most 10 min).
start_sampling() {
    rm -f "$work/stop-sampling"
    (
        peak=0
        for _ in $(seq 12000); do
            [[ -e $work/stop-sampling ]] && break
            now=$(server_rss || echo 0)
            if ((now > peak)); then peak=$now; echo "$peak" >"$1"; fi
            sleep 0.05
        done
    ) &
    sampler_pid=$!
    started+=("$sampler_pid")
}
stop_sampling() {
    touch "$work/stop-sampling"
    wait "$sampler_pid" || true
    forget "$sampler_pid"
}

mib() { awk -v k="$1" 'BEGIN { printf "%.1f MiB", k / 1024 }'; }
# Growth from $1 to the peak $2 in MiB; a peak below the start (pages given back) counts as none.
growth() { awk -v a="$1" -v b="$2" 'BEGIN { d = b - a; printf "+%.1f MiB", (d > 0 ? d / 1024 : 0) }'; }

# 99th percentile of a wrk --latency report in milliseconds.
wrk_p99() {
    awk '$1 == "99%" { v = $2
        if (v ~ /us$/) { sub(/us$/, "", v); v /= 1000 }
        else if (v ~ /ms$/) { sub(/ms$/, "", v) }
        else if (v ~ /m$/) { sub(/m$/, "", v); v *= 60000 }
        else if (v ~ /s$/) { sub(/s$/, "", v); v *= 1000 }
        printf "%.1f", v }' "$1"
}
wrk_rate() { awk '/^Requests\/sec:/ { printf "%.0f", $2 }' "$1"; }
# Requests that failed: answers outside 2xx/3xx plus socket errors.
wrk_failures() {
    awk '/Non-2xx or 3xx responses:/ { n += $NF }
         /Socket errors:/ { gsub(",", ""); n += $4 + $6 + $8 + $10 }
         END { print n + 0 }' "$1"
}

# Walks every page of the public list in turn, so the benchmark exercises the whole sort order, not one hot page.
cat >"$work/pages.lua" <<'LUA'
local pages = 1
local page = 0
function init(args) pages = tonumber(args[1]) or 1 end
function request()
    page = page % pages + 1
    return wrk.format("GET", "/api/scripts/?page=" .. page .. "&limit=24&sort=popular")
end
LUA
list_load() { # seconds-or-duration output-file
    wrk -t2 -c50 -d"$1" --timeout 5s --latency -s "$work/pages.lua" "$origin" -- "$pages" >"$2" 2>&1
}

echo "seeding 10,000 scripts and a 500 MiB weights file in $work ..."
"$seed_program" "$work/data" >"$work/seed.txt"
weights_id=$(awk '$1 == "weights" { print $2 }' "$work/seed.txt")
weights_file=$(awk '$1 == "file" { print $2 }' "$work/seed.txt")
token=$(awk '$1 == "token" { print $2 }' "$work/seed.txt")
weights_bytes=$(stat -c %s "$weights_file")

"$server_program" --data-dir "$work/data" --port 0 >"$work/server.log" 2>&1 &
server_pid=$!
started+=("$server_pid")
origin=
for _ in $(seq 300); do
    origin=$(sed -n 's/^catalogue-server: listening on \(http:[^ ]*\)$/\1/p' "$work/server.log")
    [[ -n $origin ]] && break
    kill -0 "$server_pid" 2>/dev/null || break
    sleep 0.1
done
[[ -n $origin ]] || { echo "catalogue-server did not start:" >&2; cat "$work/server.log" >&2; exit 1; }
checks=$(grep -c "start-up check" "$work/server.log" || true)
if ((checks > 0)); then
    echo "note: the server's start-up check reported $checks thing(s) about the seeded data, e.g.:"
    grep -m 3 "start-up check" "$work/server.log"
fi

nginx_port=$(free_port)
mkdir -p "$work/nginx"
cat >"$work/nginx/nginx.conf" <<NGINX
daemon off;
master_process off;
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 1024; }
http {
    access_log $work/nginx/access.log;
    client_body_temp_path $work/nginx/body;
    proxy_temp_path $work/nginx/proxy;
    fastcgi_temp_path $work/nginx/fastcgi;
    uwsgi_temp_path $work/nginx/uwsgi;
    scgi_temp_path $work/nginx/scgi;
    sendfile on;
    tcp_nopush on;
    server {
        listen 127.0.0.1:$nginx_port;
        location = /weights.onnx {
            alias $weights_file;
            default_type application/octet-stream;
        }
    }
}
NGINX
"$nginx_program" -p "$work/nginx" -e "$work/nginx/error.log" -c "$work/nginx/nginx.conf" &
started+=("$!")
nginx_url=http://127.0.0.1:$nginx_port/weights.onnx
for _ in $(seq 100); do
    [[ $(curl -s -o /dev/null -w '%{http_code}' -r 0-0 "$nginx_url" || true) == 206 ]] && break
    sleep 0.1
done
[[ $(curl -s -o /dev/null -w '%{http_code}' -r 0-0 "$nginx_url" || true) == 206 ]] \
    || { echo "nginx did not start:" >&2; cat "$work/nginx/error.log" >&2; exit 1; }

pages=$(curl -s --max-time 10 "$origin/api/scripts/?page=1&limit=24&sort=popular" \
    | python3 -c 'import json, sys; print(json.load(sys.stdin)["pagination"]["total_pages"])')
echo "server $origin (pid $server_pid), nginx $nginx_url, $pages list pages, file $weights_bytes bytes"

echo "list pages under load ..."
list_load 2s "$work/wrk-warm.txt" || true
list_load "${list_seconds}s" "$work/wrk-idle.txt" || true
idle_p99=$(wrk_p99 "$work/wrk-idle.txt")

echo "single downloads (one warm-up, then 3 of each) ..."
download_url=$origin/api/scripts/onnx/download/$weights_id
download() { # url -> "status bytes MB/s"
    curl -s -o /dev/null --max-time 300 -w '%{http_code} %{size_download} %{speed_download}\n' "$1" \
        | awk '{ printf "%s %s %.0f\n", $1, $2, $3 / 1e6 }'
}
download "$download_url" >/dev/null
download "$nginx_url" >/dev/null
server_runs=() nginx_runs=()
for _ in 1 2 3; do
    read -r status bytes speed < <(download "$download_url")
    [[ $status == 200 && $bytes == "$weights_bytes" ]] || echo "server download: HTTP $status, $bytes bytes"
    server_runs+=("$speed")
    read -r status bytes speed < <(download "$nginx_url")
    [[ $status == 200 && $bytes == "$weights_bytes" ]] || echo "nginx download: HTTP $status, $bytes bytes"
    nginx_runs+=("$speed")
done
median() { printf '%s\n' "$@" | sort -n | sed -n 2p; }
server_speed=$(median "${server_runs[@]}")
nginx_speed=$(median "${nginx_runs[@]}")
speed_ratio=$(awk -v a="$server_speed" -v b="$nginx_speed" 'BEGIN { printf "%.2f", a / b }')

echo "$slow_readers slow readers at $slow_rate/s for ${slow_seconds}s ..."
slow_before=$(server_rss)
start_sampling "$work/slow-peak"
readers=()
for i in $(seq "$slow_readers"); do
    curl -s -o /dev/null --limit-rate "$slow_rate" --max-time "$slow_seconds" -w '%{size_download}\n' \
        "$download_url" >"$work/slow-$i.txt" 2>/dev/null &
    readers+=("$!")
    started+=("$!")
done
for pid in "${readers[@]}"; do
    wait "$pid" || true
    forget "$pid"
done
stop_sampling
slow_peak=$(cat "$work/slow-peak")
slow_bytes=$(cat "$work"/slow-*.txt | awk '{ n += $1 } END { printf "%.0f", n / 1e6 }')

echo "one 500 MiB upload beside list traffic ..."
upload_before=$(server_rss)
# wrk itself in the background (not a function's subshell), so that SIGINT reaches it and it reports what it measured.
wrk -t2 -c50 -d300s --timeout 5s --latency -s "$work/pages.lua" "$origin" -- "$pages" >"$work/wrk-upload.txt" 2>&1 &
wrk_pid=$!
started+=("$wrk_pid")
sleep 0.5
start_sampling "$work/upload-peak"
upload_result=$(curl -s -o "$work/upload.json" --max-time 300 -w '%{http_code} %{time_total}' \
    -H "Authorization: Bearer $token" -F "name=Load Bench Upload" -F "description=Uploaded by the load benchmark." \
    -F "onnx_file=@$weights_file;filename=load-bench-upload.onnx;type=application/octet-stream" \
    "$origin/api/scripts/onnx/upload" || true)
stop_sampling
kill -INT "$wrk_pid" 2>/dev/null || true
wait "$wrk_pid" || true
forget "$wrk_pid"
upload_peak=$(cat "$work/upload-peak")
read -r upload_status upload_seconds <<<"$upload_result"
grep -q '"success":true' "$work/upload.json" || { echo "upload answered:"; head -c 300 "$work/upload.json"; echo; }
busy_p99=$(wrk_p99 "$work/wrk-upload.txt")

echo "a new client beside $idle_connections idle connections ..."
fds_before=$(ls "/proc/$server_pid/fd" | wc -l)
python3 "$here/hold_connections.py" "${origin##*:}" "$idle_connections" 60 "$work/stop-holding" >"$work/hold.txt" &
hold_pid=$!
started+=("$hold_pid")
for _ in $(seq 600); do
    grep -q '^open' "$work/hold.txt" && break
    sleep 0.1
done
sleep 0.5
fds_during=$(ls "/proc/$server_pid/fd" | wc -l)
new_started=$(date +%s.%N)
: >"$work/new-client.txt"
for _ in $(seq "$new_client_requests"); do
    curl -s -o /dev/null --max-time 5 -w '%{http_code} %{time_total}\n' \
        "$origin/api/scripts/?page=$((RANDOM % pages + 1))&limit=24&sort=popular" >>"$work/new-client.txt" || true
done
new_seconds=$(awk -v s="$new_started" -v e="$(date +%s.%N)" 'BEGIN { printf "%.1f", e - s }')
touch "$work/stop-holding"
wait "$hold_pid" || true
forget "$hold_pid"
held=$(head -n 1 "$work/hold.txt")
held_after=$(tail -n 1 "$work/hold.txt")
new_ok=$(awk '$1 == 200' "$work/new-client.txt" | wc -l)
new_codes=$(awk '{ print $1 }' "$work/new-client.txt" | sort | uniq -c | awk '{ printf "%s%s x%s", s, $2, $1; s = ", " }')
new_p99=$(awk '$1 == 200 { print $2 * 1000 }' "$work/new-client.txt" | sort -n \
    | awk '{ v[NR] = $1 } END { if (NR) { i = int(NR * 0.99 + 0.999); printf "%.1f", v[i] } else print "-" }')
new_p50=$(awk '$1 == 200 { print $2 * 1000 }' "$work/new-client.txt" | sort -n \
    | awk '{ v[NR] = $1 } END { if (NR) printf "%.1f", v[int((NR + 1) / 2)]; else print "-" }')

row() { printf '| %-34s | %-62s | %-27s |\n' "$1" "$2" "$3"; }
echo
row "measurement" "figures" "aim"
row "----------------------------------" "--------------------------------------------------------------" \
    "---------------------------"
row "list pages, wrk -c50 ${list_seconds}s" \
    "$(wrk_rate "$work/wrk-idle.txt") req/s, p99 $idle_p99 ms, failed $(wrk_failures "$work/wrk-idle.txt")" \
    ">= 3000 req/s, p99 <= 20 ms"
row "one 500 MiB download (median of 3)" \
    "server $server_speed MB/s, nginx $nginx_speed MB/s, ratio $speed_ratio" ">= 0.8 of nginx"
row "$slow_readers slow readers, $slow_rate/s ${slow_seconds}s" \
    "RSS $(mib "$slow_before") -> peak $(mib "$slow_peak"), $(growth "$slow_before" "$slow_peak"); ${slow_bytes} MB sent" \
    "growth <= 64 MiB"
row "one 500 MiB upload" \
    "HTTP $upload_status in ${upload_seconds}s; RSS $(growth "$upload_before" "$upload_peak") (peak $(mib "$upload_peak"))" \
    "growth <= 32 MiB"
row "list p99 during upload vs idle" \
    "$busy_p99 ms vs $idle_p99 ms ($(wrk_rate "$work/wrk-upload.txt") req/s, failed $(wrk_failures "$work/wrk-upload.txt"))" \
    "<= 2x idle"
row "$idle_connections idle connections held" "$held; server fds $fds_before -> $fds_during; after: $held_after" ""
row "new client, $new_client_requests sequential GETs" \
    "$new_ok/$new_client_requests answered ($new_codes) in ${new_seconds}s; p50 $new_p50 ms, p99 $new_p99 ms" \
    "p99 <= 50 ms"
