#!/usr/bin/env python3
"""Rows follow the shell: the real daemon against a model of the data folder.

Each round makes a random tree of folders and files in the data folder, asks
the daemon for every file once (so each has a row, under a hash of its own),
then changes the tree with a random shell sequence inside one quiet second
(renames, moves between folders, swaps through a third name, moves out of the
data folder or into a hidden folder and back, removals, new folders and files
of the old names, folders made and filled at once by one program, nested
folders made at once, copies of folders, folders renamed onto empty ones) and
compares each row's path with where its file is now. A row must name its
file, or be gone with it. Then every folder of the rounds must have an
inotify watch (read from /proc), and no watch may be on a folder that is
hidden, outside the data folder, or gone. Files that ever left the followed
tree may keep a stale row: nothing follows them there; so may a file moved
into a folder made at that same moment, whose arrival the kernel may not
report.

  rows_follow_shell.py --build BUILD_DIR [--seconds N] [--seed S]

Runs rounds until N seconds (default 120) have passed; prints the seed and the
shell sequence of every faulty round; exits 1 on a fault or when the daemon
died, 0 otherwise. Needs port 9088 free.
"""
import argparse, json, os, random, shutil, signal, socket, sqlite3, subprocess, sys, tempfile, time

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
NAMES = list("abcdefg") + ["x", "y"]
QUIET_SECONDS = 1.6  # a little more than the monitor's quiet second
SETTLE_SECONDS = 2.5
# Names of folders that the daemon leaves unwatched.
FILTERED_PREFIXES = (".", "$RECYCLE", "RECYCLER", "RECYCLED")


class Tree:
    """The model: key "T/rel" in the data folder's round folder, "O/rel" outside."""

    def __init__(self, rng):
        self.rng = rng
        self.entries = {}  # key -> ("d", None) or ("f", file number or None)
        self.left = set()  # file numbers that were ever outside the followed tree
        self.files = 0
        self.commands = []
        self.spare = 0

    def keys(self, kind):
        return [k for k, v in self.entries.items()
                if v[0] == kind and k.startswith("T") and not self.hidden(k)]

    @staticmethod
    def hidden(key):
        return key.startswith("O") or any(c.startswith(".") for c in key.split("/")[1:])

    def free_name(self, parent, reuse=True):
        for _ in range(50):
            name = self.rng.choice(NAMES) if reuse else "n%d" % self.rng.randrange(1000)
            if parent + "/" + name not in self.entries:
                return parent + "/" + name
        self.spare += 1
        return parent + "/z%d" % self.spare

    @staticmethod
    def shell(key):
        side, _, rel = key.partition("/")
        base = "." if side == "T" else "\"$OUT\""
        return base + "/" + rel if rel else base

    def add(self, key, kind, command):
        self.entries[key] = (kind, None)
        self.commands.append("%s %s" % (command, self.shell(key)))

    def mv(self, source, target, command=None):
        moved = {k: v for k, v in self.entries.items() if k == source or k.startswith(source + "/")}
        for k in moved:
            del self.entries[k]
        for k, v in moved.items():
            self.entries[target + k[len(source):]] = v
            if v[1] is not None and self.hidden(target + k[len(source):]):
                self.left.add(v[1])
        self.commands.append(command or "mv %s %s" % (self.shell(source), self.shell(target)))

    def rm(self, key):
        for k in [k for k in self.entries if k == key or k.startswith(key + "/")]:
            del self.entries[k]
        self.commands.append("rm -rf %s" % self.shell(key))

    def step(self):
        r = self.rng
        files, dirs = self.keys("f"), self.keys("d")
        places = ["T"] + dirs
        kind = r.choice(["mvf", "mvf", "mvf", "mvd", "mvd", "swapf", "swapd", "out", "back",
                         "hide", "unhide", "rmf", "rmrf", "mkdir", "touch", "write", "chain",
                         "fill", "mkdirp", "cpr", "overd"])
        if kind == "mvf" and files:
            source = r.choice(files)
            self.mv(source, self.free_name(r.choice([source.rsplit("/", 1)[0]] + dirs)))
        elif kind == "chain" and files:
            source = r.choice(files)
            middle = self.free_name(source.rsplit("/", 1)[0])
            self.mv(source, middle)
            self.mv(middle, self.free_name(r.choice(places)))
        elif kind == "mvd" and dirs:
            source = r.choice(dirs)
            self.mv(source, self.free_name(r.choice(
                ["T"] + [d for d in dirs if d != source and not d.startswith(source + "/")])))
        elif kind in ("swapf", "swapd"):
            pool = files if kind == "swapf" else dirs
            if len(pool) < 2:
                return
            a, b = r.sample(pool, 2)
            if a.startswith(b + "/") or b.startswith(a + "/"):
                return
            spare = self.free_name("T", reuse=False)
            self.mv(a, spare)
            self.mv(b, a)
            self.mv(spare, b)
        elif kind in ("out", "hide") and files + dirs:
            self.mv(r.choice(files + dirs), self.free_name("O" if kind == "out" else "T/.h", False))
        elif kind in ("back", "unhide"):
            top = "O/" if kind == "back" else "T/.h/"
            away = [k for k in self.entries if k.startswith(top) and "/" not in k[len(top):]]
            if away:
                self.mv(r.choice(away), self.free_name(r.choice(places)))
        elif kind == "rmf" and files:
            self.rm(r.choice(files))
        elif kind == "rmrf" and dirs:
            self.rm(r.choice(dirs))
        elif kind == "mkdir":
            self.add(self.free_name(r.choice(places)), "d", "mkdir")
        elif kind == "mkdirp":
            # Folders made below folders made at the same moment.
            top = self.free_name(r.choice(places))
            below = [top, top + "/" + r.choice(NAMES)]
            below.append(below[-1] + "/" + r.choice(NAMES))
            for key in below:
                self.entries[key] = ("d", None)
            self.commands.append("mkdir -p %s" % self.shell(below[-1]))
        elif kind == "cpr" and dirs:
            # A copy of a folder: new folders to watch, new files without rows.
            source = r.choice(dirs)
            target = self.free_name(r.choice(
                ["T"] + [d for d in dirs if d != source and not d.startswith(source + "/")]))
            for k, v in list(self.entries.items()):
                if k == source or k.startswith(source + "/"):
                    self.entries[target + k[len(source):]] = (v[0], None)
            self.commands.append("cp -r %s %s" % (self.shell(source), self.shell(target)))
        elif kind == "overd" and dirs:
            # A folder renamed onto an empty one, which it replaces; the empty
            # one made just before when there is none.
            source = r.choice(dirs)
            targets = [d for d in dirs if d != source and not d.startswith(source + "/") and
                       not any(k.startswith(d + "/") for k in self.entries)]
            if not targets:
                targets = [self.free_name(r.choice(
                    [p for p in places if p != source and not p.startswith(source + "/")]))]
                self.add(targets[0], "d", "mkdir")
            target = r.choice(targets)
            del self.entries[target]
            self.mv(source, target, "mv -T %s %s" % (self.shell(source), self.shell(target)))
        elif kind == "touch":
            self.add(self.free_name(r.choice(places)), "f", "touch")
        elif kind == "fill" and files + dirs:
            # Folders made and filled by one program at once: the move comes
            # before the inner folder's watch. A file so moved may keep its
            # old row.
            source = r.choice(files + dirs)
            outer = self.free_name(r.choice([p for p in places if not p.startswith(source)]))
            inner = outer + "/m"
            target = inner + "/" + source.rsplit("/", 1)[1]
            if self.entries[source][0] == "f":
                self.left.add(self.entries[source][1])
            self.entries[outer] = self.entries[inner] = ("d", None)
            self.mv(source, target, "perl -e 'mkdir($ARGV[0]) && mkdir($ARGV[1]) && "
                    "rename($ARGV[2], $ARGV[3]) or die' %s %s %s %s" % (
                        self.shell(outer), self.shell(inner), self.shell(source),
                        self.shell(target)))
        elif kind == "write" and files:
            self.commands.append("echo more >> %s" % self.shell(r.choice(files)))


def make_tree(tree):
    tree.entries["T/.h"] = ("d", None)
    tree.commands = ["mkdir -p .h \"$OUT\""]
    for _ in range(tree.rng.randint(3, 8)):
        tree.add(tree.free_name(tree.rng.choice(["T"] + tree.keys("d"))), "d", "mkdir")
    for _ in range(tree.rng.randint(10, 30)):
        key = tree.free_name(tree.rng.choice(["T"] + tree.keys("d")))
        tree.entries[key] = ("f", tree.files)
        tree.files += 1
        tree.commands.append("touch %s" % tree.shell(key))
    return tree.commands


def run_shell(commands, folder, outside):
    script = "set -e\n" + "\n".join(commands) + "\n"
    done = subprocess.run(["sh", "-c", script], cwd=folder, env=dict(os.environ, OUT=outside),
                          capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError("shell failed: %s\n%s" % (done.stderr, script))


class Daemon:
    def __init__(self, build, root):
        env = dict(os.environ, QUORVIA_ROOT=root,
                   PATH=os.path.join(SOURCE, "tools/device") + ":" + os.environ["PATH"])
        self.cli = os.path.join(build, "bin/quorvia-cli")
        self.store = root + "/userdisk/data/.systemconfig/DataBase/quorvia.db"
        log = open(root + "/daemon.err", "ab")
        self.process = subprocess.Popen([os.path.join(build, "bin/quorvia"), "-d"], env=env,
                                        stdout=log, stderr=log)
        for _ in range(200):
            try:
                socket.create_connection(("127.0.0.1", 9088), 0.2).close()
                return
            except OSError:
                time.sleep(0.05)
        self.stop()
        raise SystemExit("the daemon did not listen on 127.0.0.1:9088")

    def ask(self, path, hash_):
        request = {"api": 1, "path": path, "name": os.path.basename(path), "hash": hash_}
        subprocess.run([self.cli, json.dumps(request)], capture_output=True, check=True)

    def rows(self, prefix):
        store = sqlite3.connect("file:" + self.store + "?mode=ro", uri=True, timeout=5)
        try:
            return dict(store.execute("SELECT HASH, PATH FROM quorvia WHERE HASH LIKE ?",
                                      (prefix + "%",)))
        finally:
            store.close()

    def watched(self):
        """The inodes of the folders the daemon's inotify instances watch
        (none once it has died)."""
        inodes = set()
        fdinfo = "/proc/%d/fdinfo" % self.process.pid
        try:
            descriptors = os.listdir(fdinfo)
        except OSError:
            return inodes
        for fd in descriptors:
            try:
                with open(os.path.join(fdinfo, fd)) as info:
                    for line in info:
                        if line.startswith("inotify wd:"):
                            inodes.add(int(line.split(" ino:")[1].split()[0], 16))
            except OSError:
                pass  # closed meanwhile
        return inodes

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()


def faults_of(tree, folder, prefix, rows):
    where = {v[1]: k for k, v in tree.entries.items() if v[0] == "f" and v[1] is not None}
    faults = []
    for number in range(tree.files):
        now = where.get(number)
        want = None if now is None or tree.hidden(now) else folder + "/" + now[2:]
        row = rows.get("%s%d" % (prefix, number))
        if row != want and number not in tree.left:
            faults.append("file %d: row %s, file at %s" % (number, row, now))
    return faults


def visible_folders(top):
    """Inode -> path of top and the folders below it that the filter keeps."""
    folders = {os.stat(top).st_ino: top}
    for parent, subdirs, _ in os.walk(top):
        subdirs[:] = [d for d in subdirs if not d.startswith(FILTERED_PREFIXES)]
        for d in subdirs:
            folders[os.lstat(os.path.join(parent, d)).st_ino] = os.path.join(parent, d)
    return folders


def watch_faults(daemon, root, seed):
    """Folders of the rounds left unwatched; watches on no visible folder."""
    watched = daemon.watched()
    visible = visible_folders(root + "/userdisk/data")
    rounds = "%s/userdisk/data/r%d_" % (root, seed)
    return (["watch on inode %d: no visible folder of the data folder" % inode
             for inode in sorted(watched - set(visible))] +
            ["not watched: " + path for inode, path in sorted(visible.items())
             if path.startswith(rounds) and inode not in watched])


def one_round(daemon, root, seed, number):
    tree = Tree(random.Random(seed * 100000 + number))
    folder = "%s/userdisk/data/r%d_%d" % (root, seed, number)
    outside = "%s/userdisk/out%d_%d" % (root, seed, number)
    os.makedirs(folder)
    setup = make_tree(tree)
    started = time.time()
    run_shell(setup, folder, outside)
    prefix = "s%dr%df" % (seed, number)
    for key, (kind, file_number) in tree.entries.items():
        if kind == "f":
            daemon.ask(folder + "/" + key[2:], prefix + str(file_number))
    time.sleep(max(0.0, QUIET_SECONDS - (time.time() - started)))
    tree.commands = []
    for _ in range(tree.rng.randint(1, 8)):
        tree.step()
    changes = list(tree.commands)
    run_shell(changes, folder, outside)
    faults = []
    for _ in range(2):
        time.sleep(SETTLE_SECONDS)
        faults = faults_of(tree, folder, prefix, daemon.rows(prefix))
        faults = faults or watch_faults(daemon, root, seed)
        if not faults:
            return True
    print("=== round %d of seed %d\nsetup:\n  %s\nchanges:\n  %s\n  %s" % (
        number, seed, "\n  ".join(setup), "\n  ".join(changes), "\n  ".join(faults)), flush=True)
    return False


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--seconds", type=float, default=120)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    options = parser.parse_args()
    root = tempfile.mkdtemp(prefix="quorvia-rows-")
    subprocess.run(["sh", os.path.join(SOURCE, "scripts/make-demo-root.sh"), root],
                   check=True, capture_output=True)
    daemon = Daemon(os.path.abspath(options.build), root)
    rounds = faulty = 0
    deadline = time.time() + options.seconds
    try:
        while time.time() < deadline and daemon.process.poll() is None:
            faulty += not one_round(daemon, root, options.seed, rounds)
            rounds += 1
    finally:
        died = daemon.process.poll() is not None
        daemon.stop()
    print("rows follow the shell: seed %d, %d rounds, %d faulty%s" % (
        options.seed, rounds, faulty, ", the daemon died" if died else ""))
    if faulty == 0 and not died:
        shutil.rmtree(root, ignore_errors=True)
    sys.exit(1 if faulty or died else 0)


if __name__ == "__main__":
    main()
