# For the scripts that publish to a web server of their own. Sourced, never run.

# Makes what a web server with TLS needs, with an authority of its own, and starts one on the loopback that serves the
# folder "web" of the folder $home, in which the script works. It listens on a port that is free now. Sets `port` and
# `server`, the process that the script must end.
start_server() {
  local ec=(-newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc)
  mkdir -p web tls/temporary
  openssl req -x509 "${ec[@]}" -days 2 -subj "/CN=Demonstration" -addext keyUsage=critical,keyCertSign \
    -keyout tls/authority.key -out tls/authority.pem 2>/dev/null
  openssl req "${ec[@]}" -subj /CN=localhost -keyout tls/server.key -out tls/request.pem 2>/dev/null
  openssl x509 -req -in tls/request.pem -CA tls/authority.pem -CAkey tls/authority.key -days 2 -out tls/server.pem \
    -extfile <(printf 'subjectAltName=DNS:localhost\nextendedKeyUsage=serverAuth\n') 2>/dev/null
  port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  cat >tls/nginx.conf <<CONFIGURATION
daemon off;
worker_processes 1;
pid pid;
error_log complaints;
$([ "$(id -u)" -ne 0 ] || echo "user root root;")
events { worker_connections 64; }
http {
  access_log off;
  client_body_temp_path temporary;
  proxy_temp_path temporary;
  fastcgi_temp_path temporary;
  uwsgi_temp_path temporary;
  scgi_temp_path temporary;
  server {
    listen 127.0.0.1:$port ssl;
    ssl_certificate server.pem;
    ssl_certificate_key server.key;
    root $home/web;
  }
}
CONFIGURATION
  PATH=$PATH:/usr/sbin nginx -p "$home/tls" -c "$home/tls/nginx.conf" -e "$home/tls/complaints" &
  server=$!
  # Whatever proxy the user goes through elsewhere.
  local tries=0 ask=(curl --disable --noproxy '*' --max-time 10 --silent --cacert tls/authority.pem)
  until "${ask[@]}" --output tls/answer "https://localhost:$port/"; do
    kill -0 "$server" 2>/dev/null || fail "the web server does not start." "$(cat tls/complaints)"
    [ $((tries += 1)) -lt 600 ] || fail "the web server does not answer." "$(cat tls/complaints)"
    sleep 0.05
  done
}
