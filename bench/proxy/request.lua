-- request.lua - the wrk script bench.sh drives.
--
--   wrk [options] -s request.lua http://CONNECT_HOST:PORT/ -- MODE PATH ORIGIN CONN
--
-- wrk connects to CONNECT_HOST:PORT: a proxy, or the origin itself.
--   MODE  proxy   request line "GET http://ORIGIN/PATH HTTP/1.1" (absolute
--                 form, what a browser sends to an HTTP proxy)
--         direct  request line "GET /PATH HTTP/1.1"
--   CONN  keep    persistent connections (the HTTP/1.1 default)
--         close   every request says "Connection: close": wrk opens a new
--                 connection for each request
-- When wrk finishes, one line goes to stdout for bench.sh:
--   VXBENCH requests=N duration_us=N bytes=N p50_us=N p99_us=N
--           connect=N read=N write=N status=N timeout=N

function init(args)
  local mode, path, origin, conn = args[1], args[2], args[3], args[4] or "keep"
  if (mode ~= "proxy" and mode ~= "direct") or not path or not origin
      or (conn ~= "keep" and conn ~= "close") then
    error("usage: -- proxy|direct /path host:port keep|close")
  end
  wrk.method = "GET"
  wrk.headers["Host"] = origin
  wrk.headers["User-Agent"] = "Mozilla/5.0 (X11; Linux x86_64) vx-proxy-bench"
  wrk.headers["Accept"] = "*/*"
  if conn == "close" then
    wrk.headers["Connection"] = "close"
  elseif mode == "proxy" then
    wrk.headers["Proxy-Connection"] = "keep-alive"
  end
  if mode == "proxy" then wrk.path = "http://" .. origin .. path else wrk.path = path end
  -- No request() function: wrk formats this request once and sends the same
  -- bytes every time.
end

function done(summary, latency, requests)
  local e = summary.errors
  io.write(string.format(
    "VXBENCH requests=%d duration_us=%d bytes=%d p50_us=%d p99_us=%d " ..
    "connect=%d read=%d write=%d status=%d timeout=%d\n",
    summary.requests, summary.duration, summary.bytes,
    latency:percentile(50), latency:percentile(99),
    e.connect, e.read, e.write, e.status, e.timeout))
end
