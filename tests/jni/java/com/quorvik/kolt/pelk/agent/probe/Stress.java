package com.quorvik.kolt.pelk.agent.probe;

import static com.quorvik.kolt.pelk.agent.PELKAgentNativeLib.*;

import com.quorvik.kolt.pelk.agent.*;
import java.util.*;
import java.util.concurrent.*;
import java.util.concurrent.atomic.*;
import java.util.function.Function;

/**
 * An app's threads all at once: every native method called from many threads and from the
 * listeners for a while, registrations coming and going and listeners replaced on the way, with
 * what each call returned and what each listener heard counted, and the VM's global references
 * and threads measured.
 */
public final class Stress {
    private Stress() {}

    private static final ConcurrentHashMap<String, LongAdder> counts = new ConcurrentHashMap<>();

    private static void count(String what, long n) {
        counts.computeIfAbsent(what, key -> new LongAdder()).add(n);
    }

    // Listeners call into the library until the threads are done; the run then waits for the
    // listeners' calls under way.
    private static volatile boolean threadsDone = false;
    private static final AtomicInteger listenersCalling = new AtomicInteger();

    // Listeners of two classes, so that a callback pairing one listener's class with another
    // listener finds no method. Each call is counted as "event <method> <arguments>"; one in four
    // then calls into the library itself, as apps' listeners do.
    private static Object listener(boolean reversed) {
        return Probe.listener(reversed, event -> {
            count("event " + event, 1);
            listenersCalling.incrementAndGet();
            Random r = ThreadLocalRandom.current();
            if (!threadsDone && r.nextInt(4) == 0) {
                call(PICKS.get(r.nextInt(PICKS.size())), r);
            }
            listenersCalling.decrementAndGet();
        });
    }

    private static final Object[] LISTENERS = {listener(false), listener(true), listener(false), listener(true)};

    private static Object any(Random random) {
        return LISTENERS[random.nextInt(LISTENERS.length)];
    }

    private static final String PEER = "10.0.0.2";
    private static final int PEER_APP = 12;
    private static final DLNADevice SERVER = new DLNADevice("NAS", 0, "uuid:nas", "10.0.0.5", false);
    private static final DLNADevice RENDERER = new DLNADevice("TV", 1, "uuid:tv", "10.0.0.6", false);
    private static final FileInfo ITEM = new FileInfo("uuid:nas", "0", "1", "a", "video", "http://10.0.0.5/1");
    private static final FileInfo[] ITEMS = {ITEM, ITEM};

    private static final byte[] DATA = {'s', 't', 'r', 'e', 's', 's'};
    private static final String[] PATHS = {"/data/a", "/data/b"};

    // The latest transfer that a send or copy started, for the calls that control one.
    private static volatile int task = 0;

    private static Object started(int id) {
        if (id > 0) {
            task = id;
        }
        return id;
    }

    private static final Map<String, Function<Random, Object>> CALLS = new LinkedHashMap<>();
    private static final List<String> PICKS = new ArrayList<>();

    static {
        CALLS.put("registerApp", r -> registerApp("stress", 3, any(r), r.nextInt(4) > 0 ? any(r) : null));
        CALLS.put("unRegisterApp", r -> unRegisterApp());
        CALLS.put("getAppID", r -> getAppID());
        CALLS.put("searchInteractionApp", r -> searchInteractionApp());
        CALLS.put("getInteractionAppList", r -> getInteractionAppList());
        CALLS.put("refreshInteractionApp", r -> refreshInteractionApp(r.nextBoolean()));
        CALLS.put("sendData", r -> sendData(DATA, 6, PEER, PEER_APP, r.nextBoolean(), 3));
        CALLS.put("asynSendData", r -> asynSendData(DATA, 6, PEER, PEER_APP, false, any(r)));
        CALLS.put("sendUDPData", r -> sendUDPData(DATA, 6, PEER, PEER_APP, true, any(r)));
        CALLS.put("sendUDPDataAll", r -> sendUDPDataAll(DATA, 6, false));
        CALLS.put("broadcast", r -> broadcast(DATA, 6, "10.0.0.255", false));
        // The flag picks the kind of request, and the service gives each kind a task of its own.
        CALLS.put("sendFile", r -> started(sendFile("/data/a", PEER, any(r), PEER_APP, false, 0)));
        CALLS.put("sendFileList", r -> started(sendFileList(PATHS, PEER, any(r), PEER_APP, true, 0)));
        CALLS.put("pauseSend", r -> pauseSend(task));
        CALLS.put("resumeSend", r -> resumeSend(task));
        CALLS.put("cancelSend", r -> cancelSend(task));
        CALLS.put("cancelReceive", r -> cancelReceive(task));
        CALLS.put("deleteSendFileCallback", r -> deleteSendFileCallback(task));
        CALLS.put("setReceiveOption", r -> setReceiveOption("/data/in", any(r)));
        CALLS.put("setReceiveOptionX", r -> setReceiveOptionX(new ReceiveOption("/data/in", true, 1), any(r)));
        CALLS.put("getReceiveOption", r -> getReceiveOption(new ReceiveOption()));
        CALLS.put("startDMS", r -> startDMS());
        CALLS.put("stopDMS", r -> stopDMS());
        CALLS.put("rescanShareFolder", r -> rescanShareFolder());
        CALLS.put("setMyDMSName", r -> setMyDMSName("Den"));
        CALLS.put("rescanNetwork", r -> rescanNetwork(r.nextInt(3)));
        CALLS.put("stopCopyTransfer", r -> stopCopyTransfer(task));
        CALLS.put("searchDMS", r -> searchDMS());
        CALLS.put("searchDMR", r -> searchDMR());
        CALLS.put("getRootFileList", r -> getRootFileList(SERVER));
        CALLS.put("getFileList", r -> getFileList(SERVER, ITEM));
        CALLS.put("getParentFileList", r -> getParentFileList(SERVER, ITEM));
        CALLS.put("getParentDirectoryInfo", r -> getParentDirectoryInfo(ITEM, new FileInfo()));
        CALLS.put("downLoad", r -> started(downLoad(SERVER, ITEMS, any(r))));
        CALLS.put("upLoad", r -> started(upLoad(SERVER, RENDERER, ITEMS, ITEM, any(r))));
        CALLS.put("playSelectedFile", r -> playSelectedFile(0, SERVER, ITEMS, RENDERER));
        CALLS.put("stopCurPlayingFile", r -> stopCurPlayingFile(RENDERER));
        CALLS.put("pauseCurPlayingFile", r -> pauseCurPlayingFile(RENDERER));
        CALLS.put("resumeCurPlayingFile", r -> resumeCurPlayingFile(RENDERER));
        CALLS.put("enableContentListCache", r -> enableContentListCache(SERVER));
        CALLS.put("disableContentListCache", r -> disableContentListCache(SERVER));
        // Unregistration is picked more rarely than the rest, so that most calls find the app
        // registered and events flow, between hundreds of registrations a minute.
        for (String method : CALLS.keySet()) {
            PICKS.addAll(Collections.nCopies(method.equals("unRegisterApp") ? 1 : 8, method));
        }
    }

    private static void call(String method, Random random) {
        Object result = CALLS.get(method).apply(random);
        count("call " + method + " " + (result instanceof Object[] ? "array" : String.valueOf(result)), 1);
    }

    /**
     * Calls every method once with every kind of listener (which the bridge then holds), then
     * from `threads` threads (and the listeners) at random for `seconds`, then registers and
     * unregisters once more. Returns lines of "<kind> <what> <count>": "call <method> <result>",
     * "event <method> <arguments>", "last <method> <result>", "refs start|held" and "threads start"
     * (the VM's global references and threads).
     */
    public static String run(int threads, int seconds) throws Exception {
        getAppID();  // loads the library, whose classes cached at load count as the start
        count("refs start", Probe.globalRefs());
        count("threads start", Probe.liveThreads());

        Random random = new Random(1);
        registerApp("stress", 3, LISTENERS[0], LISTENERS[1]);
        for (String method : CALLS.keySet()) {
            call(method, random);
        }
        count("refs held", Probe.globalRefs());

        final long end = System.nanoTime() + seconds * 1_000_000_000L;
        List<Thread> workers = new ArrayList<>();
        for (int i = 0; i < threads; ++i) {
            Thread worker = new Thread(() -> {
                Random r = ThreadLocalRandom.current();
                while (System.nanoTime() < end) {
                    call(PICKS.get(r.nextInt(PICKS.size())), r);
                }
            });
            worker.start();
            workers.add(worker);
        }
        for (Thread worker : workers) {
            worker.join();
        }
        threadsDone = true;
        while (listenersCalling.get() > 0) {
            Thread.sleep(1);
        }
        if (getAppID() > 0) {
            call("unRegisterApp", random);
        }
        count("last registerApp " + registerApp("stress", 3, LISTENERS[0], LISTENERS[1]), 1);
        count("last unRegisterApp " + unRegisterApp(), 1);
        StringBuilder report = new StringBuilder();
        counts.forEach((what, n) -> report.append(what).append(' ').append(n.sum()).append('\n'));
        return report.toString();
    }
}
