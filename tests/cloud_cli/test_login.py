"""Logging in: the credential rules of the Cloud module, "authClient",
"checkAuth", debug output, and how an unreachable or untrusted service is
reported."""
import re
import shutil

import pytest

from cli_support import CloudCmd, CloudProcess, add_user

NO_TOKEN = "Could not find authentication token"


def single_error_line(result):
    assert result.stdout == ""
    lines = result.stderr.splitlines()
    assert len(lines) == 1, result.stderr
    return lines[0]


def test_token_stored_by_the_agent_logs_in_as_its_account(cloud, new_account):
    alice = new_account()
    alice.api.put_file("/hello.txt", b"hi")
    cloud.put_option("csmAuthToken", alice.token)
    result = cloud.run("ls", "/hello.txt")
    assert result.returncode == 0, result.stderr
    assert result.stdout.splitlines()[0] == f"Logged in as {alice.name}"

    cloud.put_option("csmAuthToken", "0" * 64)  # a token the service does not know
    result = cloud.run("ls", "/")
    assert result.returncode == 191
    assert "Incorrect username or password" in single_error_line(result)


def test_without_credentials_or_stored_token_the_library_error_names_the_missing_token(cloud):
    result = cloud.run("ls", "/")
    assert result.returncode == 177
    line = single_error_line(result)
    assert line.startswith("zarnucmd: The user is not logged in: ")
    assert line.endswith(NO_TOKEN + " (error 177)")
    assert not (cloud.data_dir / "config.db").exists()  # reading never creates the database


ONE_USER = "If a password or authToken are given, a username must also be"
ONE_SECRET = "If a username is given, either a password or authToken must also be, but not both"


@pytest.mark.parametrize("verb, options, message", [
    ("ls", ["-password=x"], ONE_USER),
    ("ls", ["-authToken=abc"], ONE_USER),
    ("ls", ["-password=x", "-authToken=abc"], ONE_USER),
    ("ls", ["-username=bob"], ONE_SECRET),
    ("ls", ["-username=bob", "-password=x", "-authToken=abc"], ONE_SECRET),
    ("authClient", ["-username=u", "-authToken=t"], "A username and password are required"),
    ("authClient", ["-password=p"], "A username and password are required"),
    ("checkAuth", ["-username=u", "-password=p"], "A username and authToken are required"),
    ("checkAuth", ["-authToken=t"], "A username and authToken are required"),
])
def test_incomplete_credentials_fail_before_any_request(zarnucmd, closed_url, verb, options, message):
    # The address is closed: a request would end in a transport error instead.
    result = CloudCmd(zarnucmd, closed_url).run(verb, *options)
    assert result.returncode == 55
    assert single_error_line(result) == f"zarnucmd: Invalid or unknown value: {message} (error 55)"


def test_password_login_prints_the_name_as_typed_and_a_wrong_one_exits_191(cloud, new_account):
    carol = new_account()
    result = cloud.run("mkdir", "/made", f"-username={carol.name}", f"-password={carol.password}")
    assert (result.returncode, result.stdout) == (0, f"Logged in as {carol.name}\n"), result.stderr
    assert carol.api.list("/made")["entries"][0]["is_folder"]

    result = cloud.run("ls", "/", f"-username={carol.name}", "-password=wrong")
    assert result.returncode == 191
    assert single_error_line(result) == "zarnucmd: Incorrect username or password (error 191)"


def test_token_login_ignores_ascii_case_but_check_auth_does_not(cloud, new_account):
    bob = new_account("bob")
    result = cloud.run("ls", "/", "-username=Bob", f"-authToken={bob.token}")
    assert result.returncode == 0, result.stderr
    assert result.stdout.splitlines()[0] == "Logged in as Bob"

    result = cloud.run("checkAuth", "-username=Bob", f"-authToken={bob.token}")
    assert result.returncode == 55
    assert single_error_line(result).endswith("Authentication token doesn't match username (error 55)")
    result = cloud.run("checkAuth", "-username=bob", f"-authToken={bob.token}")
    assert (result.returncode, result.stdout) == (0, bob.token + "\n"), result.stderr

    # A token of another account matches neither way.
    other = new_account()
    for words in (["ls", "/"], ["checkAuth"]):
        result = cloud.run(*words, "-username=bob", f"-authToken={other.token}")
        assert result.returncode == 55
        assert "Authentication token doesn't match username" in single_error_line(result)


def test_auth_client_prints_a_token_that_works(cloud, new_account):
    dave = new_account()
    result = cloud.run("authClient", *dave.password_options())
    assert result.returncode == 0, result.stderr
    token = result.stdout.strip()
    assert re.fullmatch(r"[0-9a-f]{64}", token) and result.stdout == token + "\n"
    assert token != dave.token  # every password login makes a new token
    result = cloud.run("ls", "/", f"-username={dave.name}", f"-authToken={token}")
    assert result.returncode == 0, result.stderr


def test_debug_output_enables_exactly_the_named_types(cloud, new_account):
    erin = new_account()
    both = cloud.run("ls", "/", "-debugOutput=CSM_CLOUD,CSM_JSON", *erin.token_options())
    assert both.returncode == 0, both.stderr
    assert "[CSM_CLOUD] POST " in both.stderr and "[CSM_JSON] list request " in both.stderr
    assert erin.token not in both.stderr  # logins and the authorization header stay out of the log

    one = cloud.run("ls", "/", "-debug=CSM_JSON", *erin.token_options())
    assert "[CSM_JSON]" in one.stderr and "[CSM_CLOUD]" not in one.stderr
    assert "[" not in cloud.run("ls", "/", *erin.token_options()).stderr


def test_unreachable_service_is_one_line_naming_the_address(zarnucmd, closed_url):
    result = CloudCmd(zarnucmd, closed_url).run("ls", "/", "-username=a", "-password=b")
    assert result.returncode == 163
    line = single_error_line(result)
    assert line.startswith("zarnucmd: ") and f"Could not reach {closed_url}" in line


def test_https_with_the_service_certificate_as_ca_pem(zarnucmd, tmp_path):
    tls = CloudProcess(tmp_path / "tls", "--listen", "127.0.0.1:0", "--self-signed").start()
    try:
        add_user(tls.data_dir, "tess", "tls pass")
        login = ["-username=tess", "-password=tls pass"]
        cloud = CloudCmd(zarnucmd, tls.url)
        assert tls.url.startswith("https://")

        untrusted = cloud.run("mkdir", "/secure", *login)
        assert untrusted.returncode == 163
        line = single_error_line(untrusted)
        assert f"Could not reach {tls.url}" in line and "certificate" in line
        assert str(cloud.data_dir / "ca.pem") in line  # says where to put the certificate

        cloud.data_dir.mkdir(parents=True, exist_ok=True)
        shutil.copy(tls.data_dir / "cert.pem", cloud.data_dir / "ca.pem")
        trusted = cloud.run("mkdir", "/secure", *login)
        assert (trusted.returncode, trusted.stdout) == (0, "Logged in as tess\n"), trusted.stderr
        by_name = cloud.run("ls", "/", *login, url=tls.url.replace("127.0.0.1", "localhost"))
        assert by_name.returncode == 0 and "secure" in by_name.stdout, by_name.stderr

        (cloud.data_dir / "ca.pem").unlink()
        cloud.put_option("csmSslVerify", "0")
        unverified = cloud.run("ls", "/secure", *login)
        assert unverified.returncode == 0, unverified.stderr
    finally:
        tls.stop()
