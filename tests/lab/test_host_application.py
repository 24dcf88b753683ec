# SPDX-License-Identifier: MIT
"""What a host application does around discovery: threads, and event loops inside slots."""

from labkit.devices import camera, camera_record, camera_txt, model_checksum



def test_queued_connections_carry_every_signal_into_another_thread(stage):
    lab, probe, publisher = stage.set_up(probe_options=["--receive-in-thread"])
    probe.browse()
    publisher.publish(camera())
    signals = probe.take_signals(1)
    probe.start_query("Lobby", True)
    publisher.set_txt("Lobby", camera_txt(model="Dome 5"))
    signals += probe.take_signals(1)
    publisher.add_address("Lobby", "10.77.0.201")
    signals += probe.take_signals(1)
    publisher.goodbye("Lobby")
    signals += probe.take_signals(1)

    later = {"longLiveQuery": True, "modelName": "Dome 5", "txtChecksum": model_checksum("Dome 5")}
    both = {**later, "addresses": ["10.77.0.101", "10.77.0.201"]}
    assert signals == [
        ("serviceFound", camera_record(lab)),
        ("serviceText", camera_record(lab, **later)),
        ("serviceAddress", camera_record(lab, **both)),
        ("serviceLost", camera_record(lab, **both)),
    ]
    assert {line["thread"] for line in probe.said.all if line["event"] == "signal"} == {"receiver"}


def test_signals_are_received_in_the_thread_of_the_object_without_a_queued_connection(stage):
    _, probe, publisher = stage.set_up()
    probe.browse()
    publisher.publish(camera())
    assert len(probe.take_signals(1)) == 1
    assert {line["thread"] for line in probe.said.all if line["event"] == "signal"} == {"main"}


def test_an_event_loop_in_a_slot_holds_further_events_back_and_then_they_follow(stage):
    lab, probe, publisher = stage.set_up(probe_options=["--nested-loop", "2500"])
    probe.browse()
    publisher.publish(camera())
    probe.said.wait_for(lambda lines: {"event": "nested-loop-begins"} in lines)
    publisher.publish(camera("Dock", "camera-2", "10.77.0.102"))
    # An operation that waits for the daemon's answer works there too.
    assert probe.start_query("Lobby", False) is True
    signals = probe.take_signals(2)

    lines = probe.said.all
    begin, end = lines.index({"event": "nested-loop-begins"}), lines.index({"event": "nested-loop-ends"})
    assert [line.get("text", line["event"]) for line in lines[begin + 1:end]] == [
        "AvahiServiceDiscovery::StartQueryRecords () -> Lobby on camera-1.local longLiveQuery 0",
        "AvahiServiceDiscovery::ResolveService () -> trying to resolve service: Lobby",
        "answer",
    ]
    assert signals == [("serviceFound", camera_record(lab)),
                       ("serviceFound", camera_record(lab, "Dock", "camera-2", "10.77.0.102"))]
    assert sorted(probe.queue()) == [("Dock", "_http._tcp"), ("Lobby", "_http._tcp"), ("Lobby", "_http._tcp")]
    assert probe.table()["Lobby"] == camera_record(lab, txtChecksum=model_checksum("Dome 4"))
