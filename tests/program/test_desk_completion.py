# Completion of qvx in bash, zsh and fish: all that `qvx --help` names is offered, and paths in an archive are.
import os
import pty
import re
import shlex
import signal

from world import HERE, Scenario, call, content, read, write

FILES = HERE + "/../../completion"
ENVIRONMENT = {"PATH": "/media/programs:/usr/bin:/bin", "HOME": "/media", "QVX_KEY": "/media/key.pem", "TERM": "dumb"}
BASH = """source /usr/share/bash-completion/bash_completion; source "$1/qvx"
COMP_LINE=$2 COMP_POINT=${#2}; COMP_WORDS=($2); [[ $2 != *' ' ]] || COMP_WORDS+=('')
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
compopt() { :; }
_qvx qvx "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
printf '%s\\n' "${COMPREPLY[@]}"
"""
# What the functions of the completion system get.
ZSH = """words=(${=2}) CURRENT=$#words; [[ $2 != *' ' ]] || { words+=('') && ((++CURRENT)) }
_arguments() { print -rl -- $specs }
_describe() { print -rl -- ${commands%%:*} }
source $1/_qvx
"""
FISH = "source $argv[1]/qvx.fish; complete -C $argv[2]"
SHELLS = {"bash": ["bash", "-c", BASH, "bash"], "zsh": ["zsh", "-fc", ZSH, "zsh"],
          "fish": ["fish", "--no-config", "-c", FISH]}
INTERACTIVE = {
    "bash": (["bash", "--norc", "--noprofile"],
             f"source /usr/share/bash-completion/bash_completion; source {FILES}/qvx"),
    "zsh": (["zsh", "-f"], f"fpath=({FILES} $fpath); autoload -Uz compinit; compinit -D -u")}
# Names of files, each with what is typed of it.
NAMES = {"sys\nlog": "sy", "it's": "i", 'dol$lar"q': "dol", "with blank": "wi", "colon:1": "colon", r"back\slash": "b",
         "ends\\": "en", "~x": "~", "$(reboot)`id`": r"\$"}
# The same for whole words in quotes.
QUOTED = {"single '$quoted'": "'media/var/log/single", 'double "$quoted" \\': '"media/var/log/double'}


def offered(shell, line):
    lines = call(*SHELLS[shell], FILES, line, env=ENVIRONMENT, stdin=-3).splitlines()
    return {line.partition("\t")[0] for line in lines} - {""}


def options(shell, command):
    if shell == "zsh":
        return {found for spec in offered(shell, f"qvx {command} -") for found in re.findall(r"^.*?(--[\w-]+)=?\[", spec)}
    return {word for word in offered(shell, f"qvx {command} --")}


def usage(*words):
    return call("/media/programs/qvx", *words, "--help")


# Types the lines at a prompt of the shell, on a terminal that is its own. Returns what was shown.
def typed(shell, *lines):
    command, setup = INTERACTIVE[shell]
    child, terminal = pty.fork()
    if child == 0:
        os.chdir("/media")
        signal.alarm(300)  # ends the shell too
        os.execvpe(command[0], [*command, "-i"], ENVIRONMENT)
    os.write(terminal, "".join(f"{line}\n" for line in (setup, *lines, "exit")).encode())
    shown = b""
    try:
        while piece := os.read(terminal, 1024):
            shown += piece
    except OSError:  # the other end is closed
        pass
    os.waitpid(child, 0)
    os.close(terminal)
    return shown.decode(errors="replace")


class Completion(Scenario):
    def setUp(self):
        super().setUp()
        self.qvx("keygen", "-o", "/media/key")
        for name in [*NAMES, *QUOTED]:
            write(f"/media/var/log/{name}")
        write("/media/var/log/deep/er/still")
        self.archive = "/media/archive.qvx"
        self.qvx("create", "-r", "/media/key.pub", "-o", self.archive, "/media/var")

    def test_all_that_help_names_is_offered(self):
        general = usage()
        commands = re.findall(r"^  (\w+)", general.partition("Subcommands:\n")[2], re.M)
        self.assertIn("list", commands)
        for shell in SHELLS:
            with self.subTest(shell):
                more = offered(shell, "qvx --") if shell == "fish" else set()
                self.assertEqual(offered(shell, "qvx ") | more, {*commands, "--help", "--version"})
                for command in commands:
                    names = re.findall(r"^  (?:-\w,)?(--[\w-]+)", usage(command), re.M)
                    self.assertEqual(options(shell, command), set(names), command)

    # A new option whose value no completion knows would be completed with nothing.
    def test_every_kind_of_value_is_completed(self):
        commands = re.findall(r"^  (\w+)", usage().partition("Subcommands:\n")[2], re.M)
        helps = "".join(usage(command) for command in commands)
        valued = set(re.findall(r"^  (?:-\w,)?--([\w-]+) [A-Z]{2}", helps, re.M))
        self.assertIn("key", valued)
        arguments = set(re.findall(r"[A-Z]{2,}", "".join(re.findall(r"^Usage.*\[OPTIONS\](.*)", helps, re.M))))
        for name in "qvx", "_qvx", "qvx.fish":
            tables = re.search(r"(?s)_qvx_value.*?(?=_qvx\(\)|_qvx_specs|# Declares)", read(f"{FILES}/{name}"))[0]
            decided = re.findall(r"[\w-]+", tables.replace("--", ""))
            self.assertLessEqual(valued | arguments, set(decided), name)

    def test_files_of_the_kind_that_is_meant(self):
        for name in "a.pem", "a.pub", "a.qvx", "a.txt":
            write(f"/media/keys/{name}")
        os.mkdir("/media/keys/folder")
        for line, names in (("list --key", {"a.pem"}), ("create -r", {"a.pub"}), ("create --recipient", {"a.pub"}),
                            ("info", {"a.qvx"}), ("find PATTERN", {"a.qvx"}), ("diff x.qvx", {"a.qvx"}),
                            ("extract -k x", {"a.qvx"}), ("extract --directory", set()),
                            ("create -o x", {"a.pem", "a.pub", "a.qvx", "a.txt"})):
            wanted = {f"/media/keys/{name}" for name in names}
            found = {name.rstrip("/") for name in offered("bash", f"qvx {line} /media/keys/")}
            self.assertEqual(found, wanted | {"/media/keys/folder"}, line)
            found = offered("fish", f"qvx {line} /media/keys/")  # puts those of the kind first, and has the others
            self.assertLessEqual(wanted | {"/media/keys/folder/"}, found, line)
        self.assertEqual(offered("bash", "qvx find "), set())

    def test_paths_in_the_archive_a_folder_at_a_time(self):
        listed = self.qvx("find", "--key", "/media/key.pem", "media/var/log/*", self.archive).splitlines()
        names = {line for line in listed if "/deep" not in line} | {"media/var/log/deep/"}
        for shell in "bash", "fish":
            for command in "cat", "extract -C /tmp":
                at = f"qvx {command} {self.archive} "
                self.assertEqual(offered(shell, at), {"media/"})
                found = offered(shell, at + "media/var/log/")
                self.assertEqual({shlex.split(name)[0] for name in found} if shell == "bash" else found, names)
                self.assertEqual(offered(shell, at + "media/var/log/deep/e"), {"media/var/log/deep/er/"})
            self.assertEqual(offered(shell, "qvx cat /media/none.qvx m"), set())

    # The names reach the program through the shell's own quoting.
    def test_completed_names_are_those_of_the_files(self):
        for shell in INTERACTIVE:
            lines = [f"qvx extract -C {shell} archive.qvx media/va\tlo\t{start}\t" for start in NAMES.values()]
            lines += [f"qvx extract -C {shell} archive.qvx {quoted}\t" for quoted in QUOTED.values()]
            shown = typed(shell, f"mkdir {shell}", *lines)
            extracted = f"/media/{shell}/media/var/log"
            self.assertEqual(set(os.listdir(extracted)), {*NAMES, *QUOTED}, shown)

    def test_passphrase_is_never_asked_for(self):
        call("openssl", "ec", "-aes256", "-passout", "pass:secret", "-in", "/media/key.pem", "-out", "/media/safe.pem")
        os.rename("/media/safe.pem", "/media/key.pem")
        self.assertIn(b"ENCRYPTED", content("/media/key.pem"))
        for shell in INTERACTIVE:
            self.assertNotIn("Passphrase", typed(shell, "qvx cat archive.qvx media/va\t --help"))
