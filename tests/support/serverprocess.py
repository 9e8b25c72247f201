"""One server as an ordinary process, for as long as a test wants it."""
import ctypes, os, signal, socket, subprocess, sys, time


def free_port():
    """Or the one that a server had that was there before."""
    if "SERVER_PORT" in os.environ:
        return int(os.environ["SERVER_PORT"])
    with socket.socket() as trial:
        trial.bind(("127.0.0.1", 0))
        return trial.getsockname()[1]


def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)


def answers(port):
    try:
        socket.create_connection(("127.0.0.1", port), 1).close()
        return True
    except OSError:
        return False


def serve(kind, top, port, words, environment, address, prepare=lambda: None):
    """Prints the address when the server answers and is prepared, or that it is missing or has failed, and ends
    it when standard input ends."""
    if words is None:
        print("missing", kind, flush=True)
        return
    output = open(top + "/output", "ab")
    server = subprocess.Popen(words, env={**os.environ, **environment}, stdin=subprocess.DEVNULL,
                              stdout=output, stderr=output, preexec_fn=die_with_parent)
    while not answers(port):
        if server.poll() is not None:
            print("failed", kind, open(top + "/output").read().replace("\n", " "), flush=True)
            return
        time.sleep(0.01)
    prepare()
    print(address, flush=True)
    sys.stdin.read()
    server.terminate()
    server.wait()
