#!/usr/bin/python3
"""What a run costs, compared with the least that it can cost and with what people use instead. bench.py STAGE RESULTS
[short] runs on a private machine, from scripts/bench. The table and the plot go into the directory RESULTS. "short"
measures little, to see that it works."""

import difflib
import glob
import json
import os
import re
import statistics
import sys

from appliance import COMMANDS, ETC, PACKAGE, PROGRAM, lay_out, read, run, settings, write
from scenarios import COMPANY

BENCH = os.path.dirname(os.path.abspath(__file__))
WORK = "/run/bench"
POSTALIAS = PACKAGE + "/target/sbin/postalias"
POSTCONF = "postconf -e"
SETTINGS = {"defaults": {}, "company": COMPANY}  # no settings files; most settings on, in six files
GROUPS = {  # by command, each file that it may write below ETC, and the file's template
    "dovecot": {"dovecot/conf.d/10-master.conf": "", "dovecot/conf.d/10-mail.conf": "10-mail"},
    "smtp": {"main.cf": "main", "master.cf": "master", "header_checks": "", "MailScanner/filename.rules.conf": "",
             "opendkim.conf": "opendkim", "opendkim/KeyTable": "", "opendkim/SigningTable": "",
             "opendkim/TrustedHosts": "", "opendmarc.conf": "opendmarc", "quota_memcache.cf": ""}}
USERS = (0, 1000, 10000, 100000, 1000000)


def generated(path, template):
    """What stands behind the template's text in a generated file."""
    text, head = read(path), read(f"{ETC}/template/{template}.template")
    return text[len(head):] if text.startswith(head) else text


def build(output, *arguments):
    run("cc", "-O2", "-o", f"{WORK}/{output}", *arguments, check=True)
    return f"{WORK}/{output}"


def idle(*programs):
    """Puts a program that does nothing in the place of those that a command runs."""
    for program in programs:
        if os.path.lexists(program):
            os.unlink(program)
        run("cp", WORK + "/idle", program, check=True)


def timed(rounds, commands, old_file=""):
    """Runs several commands in turn, `rounds` times each. Returns milliseconds and peak KiB of each run, by command.
    `old_file` gets a time of change an hour before each run."""
    argv = [item for command in commands for item in ["--", *command]]
    lines = run(WORK + "/timed", str(rounds), old_file, *argv, check=True).stdout.splitlines()
    rows = [[int(figure) for figure in line.split()] for line in lines]
    return [([row[2 * i] / 1e6 for row in rows], [row[2 * i + 1] for row in rows]) for i in range(len(commands))]


def typical(figures):
    """The lower quartile: what else runs on the machine only adds to a run."""
    return statistics.quantiles(figures, n=4, method="inclusive")[0]


# ---- The floors of a command ----

# System calls for memory and for signals that wait, and those that floor.c makes by itself when it starts a program.
MEMORY = {"brk", "mmap", "munmap", "futex", "getrandom", "rt_sigprocmask"}
STARTING = {"rt_sigaction", "fcntl", "prlimit64", "clone3", "pidfd_open", "poll"}
REPLAYED = {"openat", "read", "write", "close", "lseek", "newfstatat", "chmod", "fchmod", "fsync", "rename", "unlink"}


def calls(*command):
    """The system calls of a command, from the start of main, as the C statements of calls.h."""
    for path in glob.glob(WORK + "/strace.*"):
        os.unlink(path)
    run("strace", "-ff", "-s", "100000", "-o", WORK + "/strace", *command, check=True)
    own, *children = sorted(glob.glob(WORK + "/strace.*"), key=lambda path: int(path.rsplit(".", 1)[1]))
    programs = [re.search(r"^execve\([^[]*\[(.*)\], 0x", read(child), re.M)[1] for child in children]
    temps, statements = {}, []
    trace = read(own)
    for line in trace[trace.index('openat(AT_FDCWD, "/dev/null", O_RDWR)'):].splitlines():
        found = re.match(r"(\w+)\((.*)\) += (-?\d+|\?)", line)
        name, arguments, result = found.groups() if found else ("", "", "")
        temp = re.match(r'AT_FDCWD, ("(.*)......"), O_RDWR\|O_CREAT\|O_EXCL\|?(.*), 0600$', arguments)
        for path, variable in temps.items():
            arguments = arguments.replace(path, variable)
        if name in MEMORY or line[:3] in ("---", "+++") or name == "exit_group":
            continue
        if name == "close" and statements and statements[-1] == "// poll":
            name = "poll"  # the end of what both do to wait
        if name == "rt_sigaction" and not arguments.startswith("SIGCHLD"):
            statements.append(f"same(set_signal({arguments.split(',')[0]}), 0);")
        elif name in STARTING:
            statements.append(f"// {name}")
        elif name == "wait4":
            statements.append("{ static const char* const a[] = {%s, NULL}; same(run(a), 0); }" % programs.pop(0))
        elif temp:
            temps[temp[1]] = f"temp{len(temps)}"
            statements.append('char {0}[] = "{1}XXXXXX"; same(mkostemp({0}, {2}), {3});'.format(
                temps[temp[1]], temp[2], temp[3] or 0, result))
        elif name in REPLAYED:
            if name == "read":
                arguments = re.sub(r'".*"', "block", arguments)
            elif name == "newfstatat":
                name, arguments = "fstatat", re.sub(r"0x\w+|\{.*\}", "&status", arguments)
            statements.append(f"same({name}({arguments}), {result});")
        else:
            sys.exit(f"bench: no floor for {line}")
    return "".join(statement + "\n" for statement in statements)


def floors(word):
    """Two programs with the command's system calls: one in static C, one in C++ with the program's libraries."""
    statements = calls(PROGRAM, word)
    write(WORK + "/calls.h", statements)
    libraries = re.findall(r"\(NEEDED\).*\[(.*)\]", run("readelf", "-d", PROGRAM, check=True).stdout)
    source = ("-I" + WORK, BENCH + "/floor.c")
    c = build("floor_c", "-static", *source)
    cxx = WORK + "/floor_cxx"
    run("c++", "-O2", "-fPIE", "-x", "c++", *source, "-o", cxx, "-pie", "-Wl,-z,relro", "-Wl,-z,now",
        "-Wl,--no-as-needed", *("-l:" + library for library in libraries), "-Wl,--as-needed", check=True)
    for floor in (c, cxx):
        other = list(difflib.unified_diff(statements.splitlines(), calls(floor).splitlines(), n=0, lineterm=""))
        if other:
            sys.exit("\n".join([f"bench: {floor} makes other system calls than {word}", *other]))
    if shared(cxx) != shared(PROGRAM):
        sys.exit(f"bench: {cxx} is linked to other libraries than {PROGRAM}")
    return [c], [cxx]


def shared(program):
    return set(re.findall(r"^\s*(\S+)", run("ldd", program, check=True).stdout, re.M))


def commands(words):
    rows = []
    for name, values in SETTINGS.items():
        settings(**values)
        for word in words:
            own, (c, cxx) = [PROGRAM, word], floors(word)
            times = [time for time, _ in timed(200, [own, c, cxx])]
            typically = [typical(time) for time in times]
            rows.append([f"{word}, {name}", times[0], typically[0] / typically[1], typically[0] / typically[2]])
    return rows


# ---- What people use instead ----

def each(pattern):
    """A function that writes a file of values; `pattern` is the form of one value."""
    return lambda values: "".join(pattern % pair for pair in values.items())


SHELL = ("/bin/sh", BENCH + "/rivals/shell.sh")
# Each rival: its program, the mark for a value in its templates, and its file of values.
ENGINES = {
    "sed": ((*SHELL, "sed"), "@{}@", each("s|@%s@|%s|\n")),
    "envsubst": ((*SHELL, "envsubst"), "${{{}}}",
                 lambda values: each("export %s='%s'\n")(values) + f"names='{'$' + ' $'.join(values)}'\n"),
    "m4": ((*SHELL, "m4"), "{}_",
           lambda values: "m4_changequote(<<,>>)m4_dnl\n" + each("m4_define(<<%s_>>, <<%s>>)m4_dnl\n")(values)),
    "Perl, Text::Template": (("/usr/bin/perl", BENCH + "/rivals/template.pl"), "[@ ${} @]",
                             lambda values: "{" + each("%s => '%s',\n")(values) + "}\n"),
    "Python, Jinja2": (("/usr/bin/python3", BENCH + "/rivals/jinja.py"), "{{{{ {} }}}}", json.dumps),
}
VALUE = re.compile(r"^([^#\n]* = )(.+)$|^(\d+)( inet .*)$", re.M)  # a line of a setting, or a port of master.cf


def with_marks(path, template, mark, values):
    """A generated file with a mark in the place of each setting's value. Adds the values to the values."""
    def marked(line):
        key, value, port, rest = line.groups()
        name = f"V{len(values)}"
        values[name] = value or port
        return (key or "") + mark.format(name) + (rest or "")
    lines = generated(path, template) if template else read(path)
    return read(path).removesuffix(lines) + VALUE.sub(marked, lines)


def rivals(word, files):
    """Each peer's command for the files of the program's command, which are there."""
    found = {}
    for engine, (program, mark, values_file) in ENGINES.items():
        templates, values = f"{WORK}/{word}/{engine}", {}
        for name, template in files.items():
            write(f"{templates}/{name}", with_marks(f"{ETC}/{name}", template, mark, values))
            os.makedirs(f"{ETC}/new/{os.path.dirname(name) or '.'}/files", exist_ok=True)
        write(templates + "/values", values_file(values))
        found[engine] = [*program, templates, ETC, *files]
    if word == "smtp":
        pairs = re.findall(r"^(\w+) = (.*)$", generated(ETC + "/main.cf", "main"), re.M)
        found[POSTCONF] = ["/usr/sbin/postconf", "-c", ETC, "-e", *("=".join(pair) for pair in pairs)]
    return found


def check_rivals(found, files):
    """Each peer has to bring the program's bytes back when other values stand there."""
    wanted = {name: read(f"{ETC}/{name}") for name in files}
    for engine, command in found.items():
        for name in ["main.cf"] if engine == POSTCONF else files:
            write(f"{ETC}/{name}", with_marks(f"{ETC}/{name}", files[name], "other{}", {}))
        os.utime(ETC + "/main.cf", (0, 0))
        run(*command, check=True)
        for name, text in wanted.items():
            # postconf drops a blank after a value.
            if read(f"{ETC}/{name}").replace(" \n", "\n") != text.replace(" \n", "\n"):
                sys.exit(f"bench: {engine} writes another {name}")


def compare_rivals():
    """One row a peer: for each command with each settings, the time and its ratio to the program's."""
    rows = {engine: [engine] for engine in ("nubo_set_config", *ENGINES, POSTCONF)}
    for word in GROUPS:
        for values in SETTINGS.values():
            settings(**values)
            run("rm", "-rf", ETC + "/new", *(f"{ETC}/{name}" for name in GROUPS[word]), check=True)
            run(PROGRAM, word, check=True)
            files = {name: template for name, template in GROUPS[word].items() if os.path.exists(f"{ETC}/{name}")}
            found = rivals(word, files)
            check_rivals(found, files)
            # Postfix's programs wait after a change of main.cf.
            measured = timed(50, [[PROGRAM, word], *found.values()], ETC + "/main.cf")
            times = dict(zip(("nubo_set_config", *found), (typical(times) for times, _ in measured)))
            for engine, row in rows.items():
                time = times.get(engine)
                row += [time, time / times["nubo_set_config"]] if time else [None, None]
    return list(rows.values())


# ---- The users of a domain ----

def domain_users(counts):
    """A row for each number of users: the time, also as a multiple of the floor's; time, the floor's time and memory of
    each user, without what a run with no users takes; the peak of memory; the time with the real postalias."""
    settings(smtp={"account_type": "win", "win_domain_short_name": "CORP"})
    write("/etc/nsswitch.conf", "passwd: files\n")
    own, floor = [PROGRAM, "domain_alias"], [build("users_floor", BENCH + "/users_floor.c")]
    accounts = read("/etc/passwd")
    rows, base = [], None
    for count in counts:
        write("/etc/passwd", accounts + "".join(f"CORP\\user{number:07}:x:{100000 + number}:100::/home/u:/bin/sh\n"
                                                for number in range(count)))
        written = set()
        for command in (own, floor):
            run(*command, check=True)
            written.add(read(ETC + "/domain-aliases"))
        if len(written) != 1 or written.pop().count("\n") != count:
            sys.exit("bench: the table of the users differs from its floor's")
        (times, peaks), (floor_times, _) = timed(max(9, min(200, 1000000 // max(count, 1))), [own, floor])
        now = [typical(figures) for figures in (times, floor_times, peaks)]
        base = base or now
        user = [(figure - least) / count if count else None for figure, least in zip(now, base)]
        os.unlink(POSTALIAS)
        os.symlink("/usr/sbin/postalias", POSTALIAS)
        (with_map, _), = timed(3 if count > 10000 else 20, [own])
        idle(POSTALIAS)
        rows.append([f"{count:,}", times, now[0] / now[1], user[0] and user[0] * 1e6, user[1] and user[1] * 1e6,
                     user[2] and round(user[2] * 1024), now[2] / 1024, typical(with_map)])
    return rows


# ---- The report ----

def cell(value):
    if isinstance(value, list):
        return f"{typical(value):.2f} ({statistics.median(value):.2f})"
    if isinstance(value, float):
        return f"{value:.0f}" if value >= 100 else f"{value:.2f}"
    return "" if value is None else str(value)


def table(heads, rows, note):
    """A Markdown table that is also readable as plain text."""
    lines = [heads] + [[cell(value) for value in row] for row in rows]
    widths = [max(map(len, column)) for column in zip(*lines)]
    lines.insert(1, ["-" * widths[0]] + ["-" * (width - 1) + ":" for width in widths[1:]])
    text = "".join("| " + " | ".join(value.rjust(width) if number else value.ljust(width)
                                     for number, (value, width) in enumerate(zip(line, widths))) + " |\n"
                   for line in lines)
    return f"{text}\n{note}\n"


def plot(path, of_commands, of_rivals, of_users):
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib import pyplot
    figure, (left, middle, right) = pyplot.subplots(1, 3, figsize=(17, 6), layout="constrained")

    def bars(axes, names, series, start):
        """Horizontal bars from the top, a group for each name."""
        height = 0.8 / len(series)
        for number, (label, values) in enumerate(series.items()):
            shown = [(place, value) for place, value in enumerate(values) if value]
            drawn = axes.barh([place + (number - (len(series) - 1) / 2) * height for place, _ in shown],
                              [value - start for _, value in shown], height * 0.9, left=start, label=label)
            axes.bar_label(drawn, [f"{value:.2f}" for _, value in shown], padding=2, fontsize=8)
        axes.set_yticks(range(len(names)), names)
        axes.invert_yaxis()
        axes.margins(x=0.1)

    bars(left, [row[0] for row in of_commands], {"static C": [row[2] for row in of_commands],
                                                 "C++, same libraries": [row[3] for row in of_commands]}, 0)
    for target, color in ((1.5, "tab:blue"), (1.15, "tab:orange")):
        left.axvline(target, color=color, linestyle=":")
    left.set_title("A command's time / its floor's\n(same system calls; dotted: target)")
    left.legend(loc="lower center", ncols=2, bbox_to_anchor=(0.5, -0.13))

    others = of_rivals[1:]
    bars(middle, [row[0] for row in others],
         {f"{word}, {name}": [row[2 + 2 * (2 * i + j)] for row in others]
          for i, word in enumerate(GROUPS) for j, name in enumerate(SETTINGS)}, 1)
    middle.axvline(1, color="black")
    middle.set_xscale("log")
    middle.set_title("What people use instead: its time / the program's\n(the same bytes; postconf: of main.cf alone)")
    middle.legend(loc="lower center", ncols=2, bbox_to_anchor=(0.5, -0.16))

    counts = [int(row[0].replace(",", "")) for row in of_users[1:]]
    right.semilogx(counts, [row[3] for row in of_users[1:]], "o-", label="domain_alias")
    right.semilogx(counts, [row[4] for row in of_users[1:]], "s--", label="C: one walk, one write a line")
    right.set_ylim(bottom=0)
    right.set_xlabel("users of the domain")
    right.set_title("domain_alias: nanoseconds a user")
    right.legend(loc="lower right")
    figure.savefig(path, dpi=100)


def main():
    stage, results, *short = sys.argv[1:]
    words, counts = (["smtp"], USERS[:2]) if short else (COMMANDS, USERS)
    for rows, kept in ((SETTINGS, "company"), (GROUPS, "smtp"), (ENGINES, "sed")) if short else ():
        for name in rows.keys() - {kept}:
            del rows[name]
    os.mkdir(WORK)
    # All files are in memory, so that most of the time is the program's own and not the file system's.
    for directory in ("/var/packages", "/usr/nubo"):
        os.makedirs(directory, exist_ok=True)
        run("mount", "-t", "tmpfs", "bench", directory, check=True)
    lay_out(stage)
    build("timed", "-static", BENCH + "/timed.c")
    build("idle", "-static", BENCH + "/idle.c")
    idle(PACKAGE + "/target/sbin/postmap", POSTALIAS, "/usr/nubo/sbin/nubopkghelper")
    of_commands, of_rivals, of_users = commands(words), compare_rivals(), domain_users(counts)
    heads = [head for word in GROUPS for name in SETTINGS for head in (f"{word}, {name}: ms", "ratio")]
    text = "\n".join((
        table(["command, settings", "ms (median)", "/ C", "/ C++"], of_commands,
              "defaults: without settings files; company: most settings on. All files are in memory. Times are lower\n"
              "quartiles, since what else runs on the machine only adds to a run. / C, / C++: as a multiple of the time\n"
              "of a static C program, and of a C++ program linked to the same shared libraries, that make the same\n"
              "system calls. In place of postmap, postalias and nubopkghelper runs a program that does nothing, on all\n"
              "sides."),
        table(["instead", *heads], of_rivals,
              "ratio: as a multiple of the program's time. All write the same files, but for postconf -e, which\n"
              "writes main.cf alone. The program also checks the settings, and runs the programs of its command."),
        table(["users", "ms (median)", "/ C", "ns a user", "C: ns a user", "bytes a user", "peak MiB",
               "ms with postalias"], of_users,
              "/ C: as a multiple of the time of a C program that walks the users once and writes each line. A user's\n"
              "share is what is above a run without users.")))
    print(text, end="")
    with open(results + "/table.md", "w", encoding="utf-8") as file:
        file.write(text)
    plot(results + "/plot.png", of_commands, of_rivals, of_users)


if __name__ == "__main__":
    main()
