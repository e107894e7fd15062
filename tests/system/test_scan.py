"""kv-av-scan against suite and worker, and by itself with --local."""

import json
import os
import pty
import re
import subprocess
import sys

import pytest

SCAN = os.environ.get("KV_SCAN", "kv-av-scan")
BIN = os.path.dirname(SCAN)
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
SCRIPT = b"<html><script>alert(1)</script></html>"
REASON = '"script-tag" detected in markup'


@pytest.fixture(scope="module")
def samples(tmp_path_factory):
    folder = tmp_path_factory.mktemp("samples")
    subprocess.run([sys.executable, os.path.join(ROOT, "tools/demo/make_samples.py"), str(folder)],
                   check=True)
    return folder


@pytest.fixture
def folder(tmp_path):
    (tmp_path / "bad.html").write_bytes(SCRIPT)
    (tmp_path / "good.txt").write_text("words\n")
    return tmp_path


def scan(*arguments, stdin=b"", environment=None, **options):
    env = {name: value for name, value in os.environ.items() if not name.startswith("KV_AV_")}
    env.update(environment or {})
    return subprocess.run([SCAN, *map(str, arguments)], input=stdin, capture_output=True, env=env,
                          timeout=120, check=False, **options)


def local(*arguments, **options):
    return scan("--local", "--enable", "all", *arguments, **options)


def lines(result):
    return result.stdout.decode().split("\nSummary")[0].strip().splitlines()


# --- through broker and worker ------------------------------------------------------------------


@pytest.fixture(scope="module")
def service(suite, worker):
    return suite


def test_samples_of_every_kind(service, samples):
    result = scan("--dir", service.folder, "--realm", "all", "--sid", "any", "-r", samples)
    # The suite's definitions of these tests are empty for this pair: every check is off.
    assert result.returncode == 0, result.stderr
    service_lines = lines(result)
    assert len(service_lines) == 13 and all(line.endswith(": OK") for line in service_lines)


def test_verdicts_follow_the_definition_of_the_pair(service, samples):
    result = scan("--dir", service.folder, "--realm", "guarded", samples / "script.html",
                  samples / "program.elf", samples / "clean.txt")
    assert result.returncode == 1
    page, program, clean = lines(result)
    assert page == "%s: %s FOUND" % (samples / "script.html", REASON)
    assert program.startswith("%s: \"ELF " % (samples / "program.elf"))
    assert program.endswith(" FOUND")
    assert clean == "%s: OK" % (samples / "clean.txt")


def test_broker_and_local_agree(service, samples):
    arguments = ["--json", "-r", samples, "-j", "8"]
    switches = "EXECUTABLE,FLASH,HTML_SCRIPT"
    by_broker = scan("--dir", service.folder, "--realm", "guarded", *arguments)
    here = scan("--local", "--enable", switches, *arguments)

    def verdicts(result):
        rows = [json.loads(line) for line in result.stdout.splitlines()]
        return [(row["path"], row["status"], row["code"], row["reason"], row["mime"], row["type"])
                for row in rows]

    assert verdicts(by_broker) == verdicts(here)
    assert by_broker.returncode == here.returncode == 1


def test_standard_input(service):
    result = scan("--dir", service.folder, "--realm", "guarded", "-", stdin=SCRIPT)
    assert lines(result) == ["-: %s FOUND" % REASON]


def test_connection_by_options(service, folder):
    password = folder / "password"
    password.write_text(service.password + "\n")
    result = scan("--broker", "amqps://localhost:" + service.port, "--broker-user", "kv-av",
                  "--broker-password-file", password, "--broker-cert", service.ca,
                  folder / "good.txt")
    assert result.returncode == 0, result.stderr


@pytest.mark.parametrize("by_file", [False, True])
def test_connection_by_environment(service, folder, by_file):
    password = folder / "password"
    password.write_text(service.password + "\n")
    environment = {"KV_AV_BROKER": "amqps://localhost:" + service.port,
                   "KV_AV_BROKER_USER": "kv-av", "KV_AV_BROKER_CERT": service.ca}
    if by_file:
        environment["KV_AV_BROKER_PASSWORD_FILE"] = str(password)
    else:
        environment["KV_AV_BROKER_PASSWORD"] = service.password
    result = scan(folder / "good.txt", environment=environment)
    assert result.returncode == 0, result.stderr


@pytest.mark.parametrize("missing", ["KV_AV_BROKER", "KV_AV_BROKER_USER", "KV_AV_BROKER_PASSWORD"])
def test_missing_settings_are_named(folder, missing):
    environment = {"KV_AV_BROKER": "amqps://localhost:1", "KV_AV_BROKER_USER": "u",
                   "KV_AV_BROKER_PASSWORD": "p"}
    del environment[missing]
    result = scan(folder / "good.txt", environment=environment)
    assert result.returncode == 2
    assert missing in result.stderr.decode()


def test_wrong_password_ends_with_an_error(service, folder):
    environment = {"KV_AV_BROKER": "amqps://localhost:" + service.port, "KV_AV_BROKER_USER": "kv-av",
                   "KV_AV_BROKER_CERT": service.ca, "KV_AV_BROKER_PASSWORD": "wrong"}
    result = scan(folder / "good.txt", environment=environment)
    assert result.returncode == 2
    assert b"no connection to amqps://localhost" in result.stderr


def test_no_answer_is_an_error_of_each_file(make_suite, folder):
    """A suite without any worker."""
    lonely = make_suite()
    result = scan("--dir", lonely.folder, "--timeout", "0.1", folder / "bad.html", folder / "good.txt")
    assert result.returncode == 2
    assert all(line.endswith(" ERROR") for line in lines(result)) and len(lines(result)) == 2


def test_large_object(service, tmp_path):
    big = tmp_path / "big.html"
    big.write_bytes(b"<html>" + b"words " * (4 << 20) + b"<script>x</script></html>")
    result = scan("--dir", service.folder, "--realm", "guarded", "--timeout", "60", big)
    assert lines(result) == ["%s: %s FOUND" % (big, REASON)]


# --- by itself ----------------------------------------------------------------------------------


def test_exit_status_found_wins(folder):
    assert local(folder / "good.txt").returncode == 0
    assert local(folder / "bad.html").returncode == 1
    assert local(folder / "absent").returncode == 2
    assert local(folder / "absent", folder / "bad.html", folder / "good.txt").returncode == 1
    assert local(folder / "absent", folder / "good.txt").returncode == 2


def test_errors_do_not_stop_the_rest(folder):
    result = local(folder / "absent", folder, folder / "good.txt")
    assert lines(result) == ["%s: No such file or directory ERROR" % (folder / "absent"),
                             "%s: Is a directory (use -r) ERROR" % folder,
                             "%s: OK" % (folder / "good.txt")]


def test_only_what_was_found(folder):
    assert lines(local("-i", "-r", folder)) == ["%s: %s FOUND" % (folder / "bad.html", REASON)]


def test_summary(folder):
    text = local("-r", folder).stdout.decode().split("\nSummary\n")[1]
    assert re.search(r"Files scanned +2\n", text)
    assert re.search(r"Found +1\n", text)
    assert re.search(r"Errors +0\n", text)
    assert re.search(r"Throughput +[\d.]+ files/s, ", text)
    assert b"Summary" not in local("--no-summary", "-r", folder).stdout


def test_json_has_the_output_to_itself(folder):
    (folder / "x\xff.html").write_bytes(SCRIPT)
    with open(os.fsencode(folder) + b"/\xff\n.txt", "wb") as file:
        file.write(b"words")
    result = local("--json", "-r", folder)
    rows = [json.loads(line) for line in result.stdout.decode("utf-8").splitlines()]
    assert len(rows) == 4
    assert {row["status"] for row in rows} == {"ok", "found"}
    assert any(row["path"].endswith("/\ufffd\n.txt") for row in rows)
    assert b"Summary" in result.stderr


def test_names_cannot_steer_the_terminal(folder):
    name = "\033[2J\nclean.txt: OK"
    (folder / name).write_bytes(SCRIPT)
    result = local(folder / name)
    assert b"\033" not in result.stdout
    assert lines(result) == ["%s/\\x1b[2J\\x0aclean.txt: OK: %s FOUND" % (folder, REASON)]


def test_order_is_that_of_the_files(tmp_path):
    for number in range(200):
        (tmp_path / ("%03d.txt" % number)).write_text("words " * ((number * 7919) % 5000))
    names = [line.split(":")[0] for line in lines(local("-j", "16", "-r", tmp_path))]
    assert names == sorted(names) and len(names) == 200


def test_embedded_content_counts_as_clean_by_itself(tmp_path):
    page = tmp_path / "page.html"
    page.write_text('<html><img src="data:text/html,%3Cscript%3Ex%3C/script%3E"></html>')
    assert scan("--local", "--enable", "HTML_SCRIPT", page).returncode == 0


def test_definition_file(folder):
    definition = folder / "d.json"
    definition.write_text('{"HTML_SCRIPT": 1}')
    assert scan("--local", "--definition", definition, folder / "bad.html").returncode == 1
    definition.write_text('{"HTML_SCRIPT": 0}')
    assert scan("--local", "--definition", definition, folder / "bad.html").returncode == 0


@pytest.mark.parametrize("arguments", [
    [], ["--nonsense", "x"], ["--local", "x"], ["--local", "--enable", "NO_SUCH", "x"],
    ["--enable", "all", "x"], ["-j", "0", "x"], ["-j", "many", "x"], ["--timeout", "-1", "x"],
    ["--local", "--enable", "all", "--definition", "f", "x"], ["--broker-password", "secret", "x"]])
def test_wrong_command_lines_end_with_2(arguments):
    result = scan(*arguments)
    assert result.returncode == 2
    assert result.stderr and not result.stdout


def run_on_terminal(arguments, environment):
    """The program's output on a pseudo terminal."""
    controller, terminal = pty.openpty()
    process = subprocess.Popen([SCAN, *map(str, arguments)], stdout=terminal, stderr=terminal,
                               stdin=subprocess.DEVNULL, env=dict(os.environ, **environment))
    os.close(terminal)
    output = b""
    while True:
        try:
            piece = os.read(controller, 65536)
        except OSError:
            break
        if not piece:
            break
        output += piece
    os.close(controller)
    assert process.wait(60) == 1
    return output


def test_colours_on_a_terminal_unless_told_otherwise(folder):
    arguments = ["--local", "--enable", "all", "-r", folder]
    assert b"\033[31;1m" in run_on_terminal(arguments, {"TERM": "xterm"})
    assert b"\033[3" not in run_on_terminal(arguments, {"TERM": "xterm", "NO_COLOR": "1"})
    assert b"\033" not in local("-r", folder).stdout


def test_progress_on_a_terminal_only(service, tmp_path):
    for number in range(40):
        (tmp_path / ("%d.html" % number)).write_bytes(SCRIPT + b"x" * 2_000_000)
    arguments = ["--dir", service.folder, "--realm", "guarded", "-j", "1", "-r", tmp_path]
    assert b"of 40, " in run_on_terminal(arguments, {"TERM": "xterm", "NO_COLOR": "1"})
    assert scan(*arguments).stderr == b""


# --- its papers ---------------------------------------------------------------------------------


def help_options():
    text = scan("--help").stdout.decode()
    return set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", text.split("Options:")[1])) - {
        "-vv", "-vvv"}


def test_help_names_all_options():
    assert {"-r", "--recursive", "--json", "-i", "-j", "--timeout", "--realm", "--sid", "--local",
            "--enable", "--definition", "--dir", "--broker-password-file"} <= help_options()


def test_man_page_and_completion_know_every_option_and_no_other():
    manual = open(os.path.join(ROOT, "tools/scan/kv-av-scan.1"), encoding="utf-8").read()
    manual = manual.replace("\\-", "-")
    in_manual = set()
    for line in manual.split(".SH OPTIONS")[1].split(".SH ENVIRONMENT")[0].splitlines():
        if line.startswith("\\fB-"):
            in_manual |= set(re.findall(r"\\fB(--?[a-z][a-z-]*)", line))
    completion = open(os.path.join(ROOT, "tools/scan/kv-av-scan.bash"), encoding="utf-8").read()
    completed = set(re.search(r'options="([^"]*)"', completion).group(1).split())
    assert in_manual == help_options()
    assert completed == help_options()


def test_completion_knows_every_switch():
    completion = open(os.path.join(ROOT, "tools/scan/kv-av-scan.bash"), encoding="utf-8").read()
    known = set(re.search(r'switches="([^"]*)"', completion).group(1).split())
    told = scan("--local", "--enable", "NO_SUCH", "x").stderr.decode().split("there are: ")[1]
    assert known == set(told.split()) | {"all"}


def test_completion_works_in_bash():
    script = """source %s; COMP_WORDS=(kv-av-scan --rec); COMP_CWORD=1; compopt() { :; }
        _kv_av_scan; echo "${COMPREPLY[@]}"
        COMP_WORDS=(kv-av-scan --enable FLASH,GI); COMP_CWORD=2
        _kv_av_scan; echo "${COMPREPLY[@]}" """ % os.path.join(ROOT, "tools/scan/kv-av-scan.bash")
    result = subprocess.run(["bash", "-c", script], capture_output=True, text=True, check=True)
    assert result.stdout.split() == ["--recursive", "FLASH,GIFAR"]


# --- check-corpus -------------------------------------------------------------------------------


@pytest.fixture
def corpus(tmp_path):
    files = tmp_path / "files"
    (files / "html").mkdir(parents=True)
    (files / "exe").mkdir()
    (files / "html" / "bad.html").write_bytes(SCRIPT)
    (files / "exe" / "true").write_bytes(open("/bin/true", "rb").read())
    (files / "manifest.tsv").write_text(
        "html/bad.html\t1\tx\ttext/html\tHTML document\t.html\n"
        "exe/true\t1\tx\tapplication/x-executable\tELF 64-bit LSB executable\t\n")
    table = tmp_path / "table.tsv"
    table.write_text(
        "html/bad.html\ttext/html\tHTML_SCRIPT\t-202\t" + REASON + "\n"
        "html/bad.html\ttext/html\tFLASH\t0\t\n"
        "exe/true\tapplication/x-executable\tall\t-202\t\"ELF 64-bit LSB executable\" detected\n")
    return files, table


def check(*arguments):
    return subprocess.run([os.path.join(ROOT, "script/check-corpus"), *map(str, arguments)],
                          capture_output=True, text=True, timeout=120, check=False,
                          env=dict(os.environ, KV_BIN=BIN))


@pytest.mark.parametrize("how", [[], ["--local"]])
def test_corpus_that_agrees(corpus, how):
    result = check(*corpus, *how)
    assert result.returncode == 0, result.stdout + result.stderr
    assert re.search(r"^html +2 +2 +0$", result.stdout, re.M)
    assert re.search(r"^exe +1 +1 +0$", result.stdout, re.M)
    assert re.search(r"^all +3 +3 +0$", result.stdout, re.M)


@pytest.mark.parametrize("how", [[], ["--local"]])
def test_every_difference_is_shown(corpus, how):
    files, table = corpus
    text = table.read_text()
    table.write_text(text.replace("FLASH\t0", "FLASH\t-202").replace("script-tag", "other"))
    result = check(files, table, "--kinds", "html", *how)
    assert result.returncode == 1
    assert re.search(r"^html +2 +0 +2$", result.stdout, re.M)
    assert "exe" not in result.stdout
    assert "html/bad.html [text/html; FLASH]: expected -202, got 0" in result.stdout
    assert "HTML_SCRIPT]: expected -202 \"other\" detected in markup, got -202 " + REASON \
        in result.stdout


def test_missing_file_and_broken_table(corpus):
    files, table = corpus
    os.unlink(files / "html" / "bad.html")
    assert check(files, table, "--local").returncode == 1
    table.write_text("one field\n")
    assert check(files, table, "--local").returncode == 2
    assert check(files, table, "--local", "--kinds", "none").returncode == 2
    assert check().returncode == 2
