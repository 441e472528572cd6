#!/usr/bin/env python3
"""The window's server under a connection flood, as any local user could send it.

    bench/server_flood.py [build dir]      HOLD=1100 ATTEMPTS=2000 BROWSERS=50 by default

Starts tavrosim and tavrotest (with 1,024 file descriptors, as a desktop session has), then
measures side by side: the time to fetch the shell page and TavroTest's CPU while idle; with
BROWSERS WebSockets open, ATTEMPTS connections made and HOLD of them held open without a
request; and again once they are gone. A server that spins on a failing accept shows ~100% CPU
in the middle column, one without a limit on connections runs out of descriptors.
"""
import os
import resource
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.realpath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, 'build'))
HOLD = int(os.environ.get('HOLD', '1100'))
ATTEMPTS = int(os.environ.get('ATTEMPTS', '2000'))
BROWSERS = int(os.environ.get('BROWSERS', '50'))


def first_line(proc, prefix):
    for raw in proc.stdout:
        line = raw.decode(errors='replace').strip()
        if line.startswith(prefix):
            return line
    raise SystemExit(f'{proc.args[0]} ended before printing "{prefix}"')


def cpu_seconds(pid):
    with open(f'/proc/{pid}/stat') as f:
        fields = f.read().rsplit(')', 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf('SC_CLK_TCK')


def cpu_share(pid, seconds):
    before = cpu_seconds(pid)
    time.sleep(seconds)
    return (cpu_seconds(pid) - before) / seconds * 100


# The shell page's fetch times in ms (median, worst) and how many got no page within 2 s.
def fetch_ms(port, token, samples=20):
    times, unanswered = [], 0
    for _ in range(samples):
        start = time.monotonic()
        response = b''
        try:
            with socket.create_connection(('127.0.0.1', port), timeout=2) as s:
                s.sendall(f'GET /?token={token} HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n'
                          'Connection: close\r\n\r\n'.encode())
                while chunk := s.recv(65536):
                    response += chunk
        except OSError:
            pass
        if not response.startswith(b'HTTP/1.1 200 '):
            unanswered += 1
            continue
        times.append((time.monotonic() - start) * 1000)
    if not times:
        return float('nan'), float('nan'), unanswered
    return statistics.median(times), max(times), unanswered


def websocket(port, token):
    s = socket.create_connection(('127.0.0.1', port), timeout=10)
    s.sendall(f'GET /ws?token={token} HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n'
              'Upgrade: websocket\r\nConnection: Upgrade\r\n'
              'Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n'
              f'Origin: http://127.0.0.1:{port}\r\n\r\n'.encode())
    if b' 101 ' not in s.recv(4096):
        raise SystemExit('WebSocket refused')
    s.setblocking(False)
    return s


def main():
    tavrosim = os.path.join(BUILD, 'sim', 'tavrosim')
    tavrotest = os.path.join(BUILD, 'app', 'tavrotest')
    resource.setrlimit(resource.RLIMIT_NOFILE, (HOLD + ATTEMPTS + 1024,) * 2)
    folder = tempfile.mkdtemp(prefix='tavro-flood-')
    board = subprocess.Popen([tavrosim, '--profile', 'autovision', '--dir', folder,
                              '--control', os.path.join(folder, 'control.sock')],
                             stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    app = None
    try:
        first_line(board, 'tavrosim: serving')
        port = 20000 + os.getpid() % 30000
        env = dict(os.environ, TAVRO_DEVICE_DIR=folder, TAVROTEST_PORT=str(port))
        env.pop('DISPLAY', None)
        env.pop('WAYLAND_DISPLAY', None)
        app = subprocess.Popen(
            [tavrotest], env=env, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (1024, 1024)))
        url = first_line(app, 'TavroTest UI: ').split(': ', 1)[1]
        port = int(url.split(':')[2].split('/')[0])
        token = url.split('token=')[1]
        time.sleep(2)

        rows = [('idle', fetch_ms(port, token), cpu_share(app.pid, 3))]
        browsers = [websocket(port, token) for _ in range(BROWSERS)]
        held, failed = [], 0
        start = time.monotonic()
        for attempt in range(ATTEMPTS):
            try:
                s = socket.create_connection(('127.0.0.1', port), timeout=2)
            except OSError:
                failed += 1
                continue
            held.append(s)
            if len(held) > HOLD:
                held.pop(0).close()
        flood_s = time.monotonic() - start
        rows.append((f'{BROWSERS} browsers, {len(held)} held', fetch_ms(port, token),
                     cpu_share(app.pid, 5)))
        for s in held:
            s.close()
        for s in browsers:
            s.close()
        time.sleep(1)
        rows.append(('after', fetch_ms(port, token), cpu_share(app.pid, 3)))

        print(f'{ATTEMPTS} connection attempts in {flood_s:.2f} s, {failed} failed')
        print(f'{"":28} {"shell page median":>18} {"max":>8} {"no page":>8} {"CPU":>7}')
        for name, (median, worst, unanswered), cpu in rows:
            print(f'{name:28} {median:15.2f} ms {worst:5.1f} ms {unanswered:5d}/20 {cpu:6.1f}%')
    finally:
        for proc in (app, board):
            if proc and proc.poll() is None:
                proc.terminate()
                proc.wait()
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == '__main__':
    main()
