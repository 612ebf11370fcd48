"""Logins, tokens and the request log."""

import pytest

from cloudclient import CloudClient, CloudError


def test_login_by_password_and_token(cloud_server, new_account):
    alice = new_account("s3cret pass")
    fresh = cloud_server.client()
    answer = fresh.login(alice.name, "s3cret pass")
    assert answer["usernames"][0] == alice.name
    assert answer["token"] != alice.token  # every password login makes a new token
    assert len(answer["token"]) == 64

    by_token = cloud_server.client().call("login", {"token": alice.token})
    assert by_token["token"] == alice.token
    assert by_token["usernames"] == [alice.name]
    assert by_token["account_id"] == answer["account_id"]


def test_wrong_user_and_wrong_password_look_the_same(cloud_server, new_account):
    alice = new_account("right")
    client = cloud_server.client()
    errors = []
    for user, password in [(alice.name, "wrong"), ("nobody-" + alice.name, "right"),
                           (alice.name, "")]:
        with pytest.raises(CloudError) as e:
            client.login(user, password)
        errors.append((e.value.status, e.value.code, e.value.message))
    with pytest.raises(CloudError) as e:
        client.call("login", {"token": "0" * 64})
    errors.append((e.value.status, e.value.code, e.value.message))
    assert set(errors) == {(401, 191, "Incorrect username or password")}


def test_requests_need_a_valid_token(cloud_server, new_account):
    alice = new_account()
    anonymous = cloud_server.client()
    for token in [None, "0" * 64, alice.token.upper(), alice.token[:-1]]:
        anonymous.token = token
        with pytest.raises(CloudError) as e:
            anonymous.list("/")
        assert (e.value.status, e.value.code) == (401, 177)

    alice.call("logout")
    with pytest.raises(CloudError) as e:
        alice.list("/")
    assert e.value.code == 177


def test_log_has_one_line_per_request_and_no_secrets(cloud_server, new_account):
    alice = new_account("pa55word-in-log?")
    alice.list("/")
    alice.call("parts/missing", {"fingerprints": []})  # the list line is written before this is read
    log = cloud_server.log()
    assert "pa55word-in-log?" not in log
    assert alice.token not in log
    assert any(line.startswith("POST /api/v1/list 200 ") and line.endswith("ms")
               for line in log.splitlines())


def test_bad_json_and_unknown_endpoints(cloud_server, new_account):
    alice = new_account()
    status, _, body = alice.request("POST", "/api/v1/list", b"{not json",
                                    {"Content-Type": "application/json"})
    assert status == 400 and b'"code":55' in body
    with pytest.raises(CloudError) as e:
        alice.call("list", {"path": 7})
    assert e.value.code == 55
    with pytest.raises(CloudError) as e:
        alice.call("no/such/thing")
    assert e.value.status == 404
    info = CloudClient(cloud_server.url).get_json("/api/v1/info", auth=False)
    assert info["max_part_size"] == 1048576 and info["max_upload_parts"] == 5
