"""Who may see what: statistics per account and for the operator, login throttling,
token revocation and the operator credential."""

import os
from concurrent.futures import ThreadPoolExecutor

import pytest

from cloudclient import CloudClient, CloudError, fingerprint
from cloudservice import add_user


def test_an_account_sees_only_its_own_figures(cloud_server, new_account):
    alice, bob = new_account(), new_account()
    part = os.urandom(70000)
    operator = cloud_server.operator_client()
    service_before = operator.stats()
    assert alice.upload([part]) == {"received": 1}
    alice_after_upload = alice.stats()
    # bob sends bytes alice already stored: nothing he can read tells him so.
    assert bob.upload([part]) == {"received": 1}
    bob_stats = bob.stats()
    assert bob_stats["scope"] == "account"
    assert bob_stats["parts_received"] == 1 and bob_stats["bytes_received"] == len(part)
    assert not {"parts_stored", "bytes_stored", "logins_failed"} & set(bob_stats)
    assert bob.missing([fingerprint(part)]) == []
    # alice's figures do not move with bob's requests (her stats call is her own request).
    alice_now = alice.stats()
    assert alice_now["parts_received"] == alice_after_upload["parts_received"] == 1
    assert alice_now["requests"] == alice_after_upload["requests"] + 1

    # The operator credential sees the service as a whole: the part was stored once.
    service_after = operator.stats()
    assert service_after["scope"] == "service"
    assert service_after["parts_received"] - service_before["parts_received"] == 2
    assert service_after["parts_stored"] - service_before["parts_stored"] == 1

    # Without a credential nobody reads the counters, whatever its address; the
    # operator token is no account token.
    anonymous = cloud_server.client()
    with pytest.raises(CloudError) as e:
        anonymous.stats()
    assert (e.value.status, e.value.code) == (401, 177)
    with pytest.raises(CloudError) as e:
        operator.list("/")
    assert e.value.code == 177


def test_operator_token_is_private_and_kept(cloud_factory, tmp_path):
    proc = cloud_factory(tmp_path / "op")
    token_file = proc.data_dir / "operator.token"
    assert token_file.stat().st_mode & 0o077 == 0
    token = proc.operator_token()
    assert len(token) == 64
    proc.stop()
    proc.start()
    assert proc.operator_token() == token
    assert proc.operator_client().stats()["scope"] == "service"
    assert token not in proc.log()


def test_failed_logins_are_throttled_per_user_and_per_address(cloud_factory):
    proc = cloud_factory()
    for name in ("victim", "bystander"):
        add_user(proc.data_dir, name, "right")
    victim_token = proc.client().login("victim", "right")["token"]
    client = proc.client()

    refusals = []
    for _ in range(6):
        with pytest.raises(CloudError) as e:
            client.login("victim", "wrong")
        refusals.append(e.value.code)
    assert refusals == [191] * 5 + [220]
    # Throttled: even the right password waits, and says for how long.
    status, headers, _ = client.request("POST", "/api/v1/login", b'{"username": "victim", "password": "right"}')
    assert status == 429 and int(headers["retry-after"]) >= 1
    # Other accounts, and tokens already issued, are not affected.
    assert proc.client().login("bystander", "right")["usernames"] == ["bystander"]
    assert CloudClient(proc.url, token=victim_token).list("/")["entries"][0]["path"] == "/"

    # Guessing across many user names is throttled by the client's address.
    codes = set()
    for i in range(25):
        with pytest.raises(CloudError) as e:
            client.login(f"guess{i}", "pw")
        codes.add(e.value.code)
    assert codes == {191, 220}
    with pytest.raises(CloudError) as e:
        client.login("bystander", "right")
    assert e.value.code == 220
    stats = proc.operator_client().stats()
    assert stats["logins_throttled"] >= 2


def test_an_account_keeps_at_most_a_hundred_tokens(cloud_factory):
    proc = cloud_factory()
    add_user(proc.data_dir, "busy", "pw")

    def login_many(n):
        client = proc.client()
        return [client.login("busy", "pw")["token"] for _ in range(n)]

    with ThreadPoolExecutor(3) as pool:
        tokens = [t for batch in pool.map(login_many, [34] * 3) for t in batch]
    last = proc.client().login("busy", "pw")["token"]
    # 103 tokens were made; the account keeps 100, the newest among them.
    alive = 0
    for token in tokens + [last]:
        try:
            CloudClient(proc.url, token=token).list("/")
            alive += 1
        except CloudError as e:
            assert e.code == 177
    assert alive == 100
    assert CloudClient(proc.url, token=last).list("/")["entries"]
