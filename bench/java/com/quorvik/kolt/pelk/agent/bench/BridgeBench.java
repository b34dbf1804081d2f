package com.quorvik.kolt.pelk.agent.bench;

import com.quorvik.kolt.pelk.agent.InterAppChangeListener;
import com.quorvik.kolt.pelk.agent.PELKAgentNativeLib;
import com.quorvik.kolt.pelk.agent.ReceiveListener;
import java.io.DataInputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;

/**
 * What an app pays for the library between its Java code and the service, beside plain Java
 * sockets moving the same bytes:
 *
 * <ul>
 *   <li>an event: from the moment the service writes a received-data frame to the moment the
 *       Java listener's first line runs, against a plain socket thread that reads the same frame;
 *   <li>sendData from Java: the call's round trip, against a plain socket that writes the same
 *       request frame and reads the same reply.
 * </ul>
 *
 * <p>The service is a small one inside this program (it answers registration, the receive option
 * and sends, and pushes the frames), so the figures are the library's own cost and one clock
 * times both ends. Library and plain runs alternate within each round. Binds 127.0.0.1:20014.
 *
 * <p>Arguments (all optional): rounds, calls per round and case, data bytes per frame.
 */
public final class BridgeBench {
    private static final int PORT = 20014;
    private static final int APP_ID = 7;
    private static final int REGISTER = 1;
    private static final int UNREGISTER = 2;
    private static final int SET_RECEIVE_OPTION = 15;
    private static final int SEND_DATA = 18;
    private static final int RECEIVE_DATA = 20;
    private static final int APP_RECORD_SIZE = 304;

    private BridgeBench() {}

    public static void main(String[] args) throws Exception {
        final int rounds = args.length > 0 ? Integer.parseInt(args[0]) : 10;
        final int calls = args.length > 1 ? Integer.parseInt(args[1]) : 2000;
        final int size = args.length > 2 ? Integer.parseInt(args[2]) : 300;
        final byte[] payload = new byte[size];
        Arrays.fill(payload, (byte) 'd');

        Service service = new Service();
        BlockingQueue<Long> heard = new ArrayBlockingQueue<>(1);
        Listener listener = new Listener(heard);
        check(PELKAgentNativeLib.registerApp("bench", 1, listener, null) == 0, "registerApp failed");
        Connection agent = service.accepted.take();
        check(PELKAgentNativeLib.setReceiveOption("/tmp", listener) == 0, "setReceiveOption failed");

        // Plain sockets: one whose thread reads pushed frames, one for round trips.
        try (Socket pushed = new Socket(InetAddress.getLoopbackAddress(), PORT);
             Socket raw = new Socket(InetAddress.getLoopbackAddress(), PORT)) {
            Connection plain = service.accepted.take();
            service.accepted.take();  // the round trips' end, which only its reader answers
            byte[] event = frame(receiveData(payload));
            byte[] request = frame(sendDataRequest(payload));
            // The plain ends know what comes and read it whole, with one call where the socket allows.
            DataInputStream pushedIn = new DataInputStream(pushed.getInputStream());
            startDaemon("plain reader", () -> {
                try {
                    byte[] into = new byte[event.length];
                    while (true) {
                        pushedIn.readFully(into);
                        heard.put(System.nanoTime());
                    }
                } catch (IOException | InterruptedException e) {
                    // The run is over.
                }
            });
            DataInputStream rawIn = new DataInputStream(raw.getInputStream());
            OutputStream rawOut = raw.getOutputStream();

            Case[] cases = {
                new Case("event -> listener", () -> push(agent, event, heard)),
                new Case("event -> plain read", () -> push(plain, event, heard)),
                new Case("sendData", () -> sendData(payload)),
                new Case("plain round trip", () -> roundTrip(rawOut, rawIn, request)),
            };
            // The first round warms the JIT up and is not counted.
            for (int round = 0; round <= rounds; ++round) {
                for (int i = 0; i < cases.length; ++i) {
                    // Each round starts with another case, so that no case always follows the same.
                    cases[(i + round) % cases.length].run(calls, round > 0);
                }
            }
            System.out.printf("%d rounds of %d calls per case, %d data bytes; microseconds%n", rounds, calls, size);
            System.out.printf("%-22s %9s %9s%n", "", "p50", "p99");
            for (int i = 0; i < cases.length; i += 2) {
                cases[i].print();
                cases[i + 1].print();
                System.out.printf("%-22s %8.2fx %8.2fx%n", "  ratio",
                                  cases[i].percentile(50) / cases[i + 1].percentile(50),
                                  cases[i].percentile(99) / cases[i + 1].percentile(99));
            }
            System.out.printf("the listener ran on %d Thread object(s) over %d events%n", listener.threads(),
                              listener.events());
        }
        check(PELKAgentNativeLib.unRegisterApp() == 0, "unRegisterApp failed");
    }

    /** One measured case: each call returns its own duration in nanoseconds. */
    private interface Call {
        long run() throws Exception;
    }

    private static final class Case {
        private final String name;
        private final Call call;
        private long[] times = new long[0];

        Case(String name, Call call) {
            this.name = name;
            this.call = call;
        }

        void run(int calls, boolean counted) throws Exception {
            long[] round = new long[calls];
            for (int i = 0; i < calls; ++i) {
                round[i] = call.run();
            }
            if (counted) {
                int before = times.length;
                times = Arrays.copyOf(times, before + calls);
                System.arraycopy(round, 0, times, before, calls);
            }
        }

        double percentile(int p) {
            long[] sorted = times.clone();
            Arrays.sort(sorted);
            return sorted[Math.min(sorted.length - 1, sorted.length * p / 100)] / 1000.0;
        }

        void print() {
            System.out.printf("%-22s %9.2f %9.2f%n", name, percentile(50), percentile(99));
        }
    }

    /** Writes an event and waits until its reader has it: the time between the two. */
    private static long push(Connection to, byte[] event, BlockingQueue<Long> heard) throws Exception {
        long start = System.nanoTime();
        to.write(event);
        return heard.take() - start;
    }

    private static long sendData(byte[] payload) {
        long start = System.nanoTime();
        int result = PELKAgentNativeLib.sendData(payload, payload.length, "10.0.0.2", 12, false, 5);
        long time = System.nanoTime() - start;
        check(result == 0, "sendData gave " + result);
        return time;
    }

    private static long roundTrip(OutputStream out, DataInputStream in, byte[] request) throws IOException {
        long start = System.nanoTime();
        out.write(request);
        byte[] reply = new byte[12];
        in.readFully(reply);
        long time = System.nanoTime() - start;
        check(reply[0] == 8 && reply[4] == SEND_DATA, "an unexpected reply");
        return time;
    }

    /** The receive listener: notes the time on its first line, then who called it. */
    private static final class Listener implements InterAppChangeListener, ReceiveListener {
        private final BlockingQueue<Long> heard;
        private Thread last;
        private int threads;
        private int events;

        Listener(BlockingQueue<Long> heard) {
            this.heard = heard;
        }

        @Override
        public void onReceivingData(int type, byte[] data, int length, PELKAgentNativeLib.InteractionApp sender) {
            long now = System.nanoTime();
            Thread current = Thread.currentThread();
            synchronized (this) {
                threads += current == last ? 0 : 1;
                last = current;
                ++events;
            }
            heard.add(now);
        }

        @Override
        public void onReceivingFile(PELKAgentNativeLib.FileTransferEvent event) {}

        @Override
        public void onInterAppChange(PELKAgentNativeLib.InteractionApp app, int changeType) {}

        synchronized int threads() {
            return threads;
        }

        synchronized int events() {
            return events;
        }
    }

    // ---- The service ----------------------------------------------------------------------

    /** Accepts every client and answers its requests on a thread of its own. */
    private static final class Service {
        final BlockingQueue<Connection> accepted = new LinkedBlockingQueue<>();

        Service() throws IOException {
            ServerSocket server = new ServerSocket();
            server.setReuseAddress(true);
            server.bind(new InetSocketAddress(InetAddress.getLoopbackAddress(), PORT));
            startDaemon("service", () -> {
                try {
                    while (true) {
                        Connection connection = new Connection(server.accept());
                        accepted.add(connection);
                        startDaemon("service reader", connection::answer);
                    }
                } catch (IOException e) {
                    // The run is over.
                }
            });
        }
    }

    private static final class Connection {
        private final Socket socket;
        private final OutputStream out;

        Connection(Socket socket) throws IOException {
            this.socket = socket;
            this.out = socket.getOutputStream();
        }

        synchronized void write(byte[] bytes) throws IOException {
            out.write(bytes);
        }

        void answer() {
            try {
                DataInputStream in = new DataInputStream(socket.getInputStream());
                while (true) {
                    ByteBuffer request = ByteBuffer.wrap(readFrame(in)).order(ByteOrder.LITTLE_ENDIAN);
                    int action = request.getInt(0);
                    if (action == REGISTER) {
                        write(frame(message(12).putInt(REGISTER).putInt(APP_ID).putInt(0)));
                    } else if (action == UNREGISTER || action == SET_RECEIVE_OPTION || action == SEND_DATA) {
                        write(frame(message(8).putInt(action).putInt(0)));
                    }
                }
            } catch (IOException e) {
                // The client went away.
            }
        }
    }

    // ---- Frames: a 32-bit little-endian length, then the message --------------------------

    private static ByteBuffer message(int size) {
        return ByteBuffer.allocate(size).order(ByteOrder.LITTLE_ENDIAN);
    }

    private static byte[] frame(ByteBuffer body) {
        byte[] bytes = body.array();
        return message(4 + bytes.length).putInt(bytes.length).put(bytes).array();
    }

    private static byte[] readFrame(DataInputStream in) throws IOException {
        byte[] head = new byte[4];
        in.readFully(head);
        byte[] body = new byte[ByteBuffer.wrap(head).order(ByteOrder.LITTLE_ENDIAN).getInt()];
        in.readFully(body);
        return body;
    }

    /** An app record: name, app ID, type, address, MAC address, local flag, padding. */
    private static void putApp(ByteBuffer into, String name, int appID, String address) {
        int start = into.position();
        into.put(name.getBytes(StandardCharsets.UTF_8)).position(start + 260);
        into.putInt(appID).putInt(0);
        into.put(address.getBytes(StandardCharsets.UTF_8)).position(start + APP_RECORD_SIZE);
    }

    /** Event 20: data from another app. */
    private static ByteBuffer receiveData(byte[] data) {
        ByteBuffer body = message(4 * 3 + APP_RECORD_SIZE + 4 + data.length).putInt(RECEIVE_DATA).putInt(1).putInt(5);
        putApp(body, "peer", 12, "10.0.0.9");
        return body.putInt(data.length).put(data);
    }

    /** Request 18 as the library writes it for sendData(data, length, "10.0.0.2", 12, false, 5). */
    private static ByteBuffer sendDataRequest(byte[] data) {
        ByteBuffer body = message(4 + APP_RECORD_SIZE + 1 + 4 + 4 + data.length).putInt(SEND_DATA);
        putApp(body, "", 12, "10.0.0.2");
        return body.put((byte) 0).putInt(5000).putInt(data.length).put(data);
    }

    // ---- Helpers ---------------------------------------------------------------------------

    private interface Body {
        void run() throws Exception;
    }

    private static void startDaemon(String name, Body body) {
        Thread thread = new Thread(() -> {
            try {
                body.run();
            } catch (Exception e) {
                throw new IllegalStateException(e);
            }
        }, name);
        thread.setDaemon(true);
        thread.start();
    }

    private static void check(boolean condition, String failure) {
        if (!condition) {
            throw new IllegalStateException(failure);
        }
    }
}
