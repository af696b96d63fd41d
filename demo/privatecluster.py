"""A throw-away PostgreSQL cluster on 127.0.0.1 that has the module at hand: for the demo and the tests.

It never runs as root: called as root, every program of the server runs as an unprivileged user.
"""
import os
import pwd
import shutil
import socket
import subprocess
import tempfile

SUPERUSER = "postgres"
STOP_SECONDS = 15


def _unprivileged_user():
    """The user to run the server as, or None when the caller is unprivileged already."""
    if os.geteuid() != 0:
        return None
    for name in ("postgres", "nobody"):
        try:
            return pwd.getpwnam(name)
        except KeyError:
            pass
    raise RuntimeError("neither the user postgres nor the user nobody exists")


def _free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class PrivateCluster:
    """`with PrivateCluster(module=path) as cluster:` starts a server and leaves no trace of it afterwards.

    `module` and `extra_modules` are copied into the cluster's directory, where the server can read them.
    `environment` is added to the environment of the server.
    """

    def __init__(self, module, pg_bindir=None, extra_modules=(), environment=None):
        config = os.environ.get("PG_CONFIG", "pg_config")
        self.pg_bindir = pg_bindir or subprocess.check_output([config, "--bindir"], text=True).strip()
        self.environment = dict(environment or {})
        self.directory = self.module_path = self.log_path = self.port = None
        self._modules = [os.fspath(path) for path in (module, *extra_modules)]
        self._user = _unprivileged_user()

    def __enter__(self):
        self.directory = tempfile.mkdtemp(prefix="fdw-cluster-")
        try:
            self._start()
        except BaseException:
            self.stop()
            raise
        return self

    def __exit__(self, *failure):
        self.stop()

    @property
    def dsn(self):
        """The connection string of the cluster's superuser."""
        return f"host=127.0.0.1 port={self.port} user={SUPERUSER} dbname=postgres"

    def psql_line(self):
        """The shell command that opens a session."""
        return f'{self.pg_bindir}/psql "{self.dsn}"'

    def path_of(self, name):
        """The path of a module copied into the cluster, by its file name."""
        return os.path.join(self.directory, name)

    def run_as(self, argv, **kwargs):
        """Starts a program (a `subprocess.Popen`) as the user that owns the cluster."""
        if self._user:
            kwargs.update(user=self._user.pw_uid, group=self._user.pw_gid, extra_groups=[])
        kwargs.setdefault("cwd", self.directory)
        return subprocess.Popen(argv, **kwargs)

    def _start(self):
        os.chmod(self.directory, 0o755)
        for path in self._modules:
            shutil.copy(path, self.directory)
            os.chmod(self.path_of(os.path.basename(path)), 0o755)
        self.module_path = self.path_of(os.path.basename(self._modules[0]))
        self.log_path = self.path_of("server.log")
        if self._user:
            os.chown(self.directory, self._user.pw_uid, self._user.pw_gid)
        self._run("initdb", "--pgdata", self._data, "--username", SUPERUSER, "--auth", "trust",
                  "--encoding", "UTF8", "--locale", "C", "--no-sync")
        self.port = _free_port()
        with open(os.path.join(self._data, "postgresql.conf"), "a", encoding="utf-8") as settings:
            settings.write(f"listen_addresses = '127.0.0.1'\n"
                           f"port = {self.port}\n"
                           f"unix_socket_directories = '{self.directory}'\n"
                           f"fsync = off\n"
                           f"shared_buffers = '16MB'\n"
                           f"log_line_prefix = '%m [%p] %e '\n")
        try:
            self._run("pg_ctl", "start", "--pgdata", self._data, "--wait", "--silent", "--log", self.log_path,
                      environment=self.environment)
        except RuntimeError as error:
            if not os.path.exists(self.log_path):
                raise
            with open(self.log_path, encoding="utf-8", errors="replace") as log:
                raise RuntimeError(f"{error}\n{log.read()}") from None

    def shut_down(self):
        """Stops the server and leaves its data, for a program that works on them alone."""
        self._run("pg_ctl", "stop", "--pgdata", self._data, "--mode", "fast", "--wait")

    def stop(self):
        """Stops the server, if it runs, and removes its directory."""
        try:
            if os.path.exists(os.path.join(self._data, "postmaster.pid")):
                try:
                    self._run("pg_ctl", "stop", "--pgdata", self._data, "--mode", "fast", "--wait",
                              "--timeout", str(STOP_SECONDS))
                except RuntimeError:
                    # A backend that does not heed the request must not outlive the cluster.
                    self._run("pg_ctl", "stop", "--pgdata", self._data, "--mode", "immediate", "--wait")
        finally:
            shutil.rmtree(self.directory, ignore_errors=True)

    @property
    def _data(self):
        return os.path.join(self.directory, "data")

    def _run(self, program, *arguments, environment=None):
        # The output goes to a file: the server inherits it from pg_ctl, and a pipe would never reach its end.
        with tempfile.TemporaryFile() as output:
            process = self.run_as([os.path.join(self.pg_bindir, program), *arguments],
                                  stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                  env={**os.environ, **(environment or {})})
            if process.wait():
                output.seek(0)
                raise RuntimeError(f"{program} failed:\n{output.read().decode(errors='replace')}")
