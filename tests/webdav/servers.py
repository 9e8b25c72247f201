#!/usr/bin/env python3
"""Runs one WebDAV server as an ordinary process, for a test.

    servers.py KIND DIRECTORY

KIND is apache, nginx, lighttpd, rclone, sabre, tls, which is rclone with a certificate that it has
issued itself, in "certificate", or guarded: nginx for whoever has the bearer token "a.token" and shows a
certificate of the authority that issued its own. "authority" is that one's certificate, "mine" and
"mine.key" are one of it, "theirs" and "theirs.key" one of nobody. Everything lies in DIRECTORY: what is
served in "files", and the server's own things beside it. The port is one that the kernel had free. Prints the
URL when the server answers, or "missing WHAT" when it is not installed, and ends it when standard
input ends.
"""
import os, shutil, subprocess, sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from serverprocess import free_port, serve

SABRE = r"""<?php
set_include_path('/usr/share/php');
require_once 'Sabre/autoload.php';
date_default_timezone_set('UTC');
$server = new Sabre\DAV\Server(new Sabre\DAV\FS\Directory(getenv('FILES')));
$server->setBaseUri('/');
$server->addPlugin(new Sabre\DAV\Locks\Plugin(new Sabre\DAV\Locks\Backend\File(getenv('LOCKS'))));
$server->exec();
"""

APACHE = """
ServerRoot "{top}"
ServerName localhost
Listen 127.0.0.1:{port}
PidFile "{top}/pid"
ErrorLog "{top}/log"
Mutex file:{top} default
LoadModule mpm_event_module {modules}/mod_mpm_event.so
LoadModule authn_core_module {modules}/mod_authn_core.so
LoadModule authn_file_module {modules}/mod_authn_file.so
LoadModule authz_core_module {modules}/mod_authz_core.so
LoadModule authz_user_module {modules}/mod_authz_user.so
LoadModule auth_digest_module {modules}/mod_auth_digest.so
LoadModule dav_module {modules}/mod_dav.so
LoadModule dav_fs_module {modules}/mod_dav_fs.so
LoadModule deflate_module {modules}/mod_deflate.so
LoadModule filter_module {modules}/mod_filter.so
{user}
StartServers 1
ThreadsPerChild 16
DocumentRoot "{files}"
DavLockDB "{top}/locks"
SetOutputFilter DEFLATE
<Directory "{files}">
  Dav On
  AllowOverride None
  AuthType Digest
  AuthName docs
  AuthUserFile "{top}/users"
  Require valid-user
</Directory>
"""

NGINX = """
{user}
daemon off;
master_process off;
pid {top}/pid;
error_log {top}/log;
load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;
events {{ }}
http {{
  access_log off;
  client_body_temp_path {top}/bodies;
  proxy_temp_path {top}/proxy;
  fastcgi_temp_path {top}/fastcgi;
  uwsgi_temp_path {top}/uwsgi;
  scgi_temp_path {top}/scgi;
  server {{
    listen 127.0.0.1:{port}{tls};
    root {files};
    {guards}
    client_max_body_size 0;
    dav_methods PUT DELETE MKCOL COPY MOVE;
    dav_ext_methods PROPFIND OPTIONS;
  }}
}}
"""

GUARDS = """
    ssl_certificate {top}/server;
    ssl_certificate_key {top}/server.key;
    ssl_client_certificate {top}/authority;
    ssl_verify_client on;
    set $wanted "Bearer realm=docs";
    if ($http_authorization = "Bearer a.token") {{
      set $wanted "";
    }}
    add_header WWW-Authenticate $wanted always;
    if ($wanted) {{
      return 401;
    }}
"""

LIGHTTPD = """
server.port = {port}
server.bind = "127.0.0.1"
server.document-root = "{files}"
server.errorlog = "{top}/log"
server.upload-dirs = ( "{top}" )
server.modules = ( "mod_webdav" )
mimetype.assign = ( "" => "application/octet-stream" )
webdav.activate = "enable"
webdav.sqlite-db-name = "{top}/properties"
"""


def write(path, text):
    with open(path, "w") as file:
        file.write(text)
    return path


def issue(path, *options):
    """A certificate and its key; by nobody but itself, unless the options say otherwise."""
    subprocess.run(["openssl", "req", "-x509", "-nodes", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                    "-days", "2", "-subj", "/CN=" + os.path.basename(path), "-keyout", path + ".key", "-out", path,
                    *options], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def command(kind, top, port):
    """The program, its arguments and what goes with it; None when it is not installed."""
    files = top + "/files"
    os.makedirs(files, exist_ok=True)
    root = os.geteuid() == 0
    values = {"top": top, "files": files, "port": port, "modules": "/usr/lib/apache2/modules",
              "user": "", "tls": "", "guards": ""}
    environment = {}
    if kind == "apache":
        program = "/usr/sbin/apache2"
        if root:
            # As root it hands its work to another user, to whom everything has to belong.
            values["user"] = "User www-data\nGroup www-data"
            shutil.chown(top, "www-data", "www-data")
            shutil.chown(files, "www-data", "www-data")
        import hashlib
        secret = hashlib.md5(b"user:docs:pass word").hexdigest()
        write(top + "/users", f"user:docs:{secret}\n")
        arguments = ["-DFOREGROUND", "-f", write(top + "/conf", APACHE.format(**values))]
    elif kind in ("nginx", "guarded"):
        program = "/usr/sbin/nginx"
        if not os.path.exists("/usr/lib/nginx/modules/ngx_http_dav_ext_module.so"):
            return None
        if kind == "guarded":
            if not shutil.which("openssl"):
                return None
            by_authority = ["-CA", top + "/authority", "-CAkey", top + "/authority.key",
                            "-addext", "basicConstraints=critical,CA:false"]
            issue(top + "/authority")
            issue(top + "/server", *by_authority, "-addext", "subjectAltName=IP:127.0.0.1")
            issue(top + "/mine", *by_authority)
            issue(top + "/theirs")
            values.update(tls=" ssl", guards=GUARDS.format(**values))
        values["user"] = "user root;" if root else ""
        arguments = ["-p", top, "-e", top + "/log",
                     "-c", write(top + "/conf", NGINX.format(**values))]
    elif kind == "lighttpd":
        program = "/usr/sbin/lighttpd"
        if not os.path.exists("/usr/lib/lighttpd/mod_webdav.so"):
            return None
        arguments = ["-D", "-f", write(top + "/conf", LIGHTTPD.format(**values))]
    elif kind in ("rclone", "tls"):
        program = "/usr/bin/rclone"
        environment = {"RCLONE_CONFIG": top + "/conf"}
        arguments = ["serve", "webdav", files, "--addr", f"127.0.0.1:{port}",
                     "--dir-cache-time", "0s", "--user", "user", "--pass", "pass word"]
        if kind == "tls":
            if not shutil.which("openssl"):
                return None
            issue(top + "/certificate", "-addext", "subjectAltName=IP:127.0.0.1")
            arguments += ["--cert", top + "/certificate", "--key", top + "/certificate.key"]
    else:
        program = "/usr/bin/php"
        if not os.path.exists("/usr/share/php/Sabre/autoload.php"):
            return None
        environment = {"FILES": files, "LOCKS": top + "/locks"}
        arguments = ["-S", f"127.0.0.1:{port}", write(top + "/index.php", SABRE)]
    if not os.path.exists(program):
        return None
    return [program] + arguments, environment


def main():
    kind, top = sys.argv[1], os.path.abspath(sys.argv[2])
    os.makedirs(top, exist_ok=True)
    port = int(sys.argv[3]) if len(sys.argv) > 3 else free_port()
    words, environment = command(kind, top, port) or (None, {})
    scheme = "https" if kind in ("tls", "guarded") else "http"
    serve(kind, top, port, words, environment, f"{scheme}://127.0.0.1:{port}/")


main()
