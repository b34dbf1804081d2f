package com.quorvik.kolt.pelk.agent.probe;

import com.quorvik.kolt.pelk.agent.*;
import java.lang.management.ManagementFactory;
import java.lang.reflect.*;
import java.nio.charset.StandardCharsets;
import java.util.*;
import java.util.concurrent.*;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.Consumer;
import java.util.regex.*;
import javax.management.ObjectName;

/**
 * The bridge tests' hands in the VM: calls the native methods from Java, shows their results, and
 * makes listeners that write down each call they receive.
 */
public final class Probe {
    private Probe() {}

    /**
     * Calls the native method of this name as an app would, or else the static method of this
     * name of the probe or the stress run (primitives boxed).
     */
    public static Object call(String name, Object[] args) throws Throwable {
        for (Class<?> owner : Arrays.asList(PELKAgentNativeLib.class, Probe.class, Stress.class)) {
            for (Method method : owner.getDeclaredMethods()) {
                int modifiers = method.getModifiers();
                if (method.getName().equals(name) && Modifier.isPublic(modifiers) && Modifier.isStatic(modifiers)) {
                    try {
                        return method.invoke(null, args);
                    } catch (InvocationTargetException e) {
                        throw e.getCause();
                    }
                }
            }
        }
        throw new NoSuchMethodException(name);
    }

    /** Writes down each call to a listener as one line: "<method> <arguments>". */
    private static final class Recorder implements InvocationHandler {
        final LinkedBlockingQueue<String> calls = new LinkedBlockingQueue<>();
        final AtomicInteger count = new AtomicInteger();
        final Consumer<String> heard;

        Recorder(Consumer<String> heard) {
            this.heard = heard;
        }

        @Override
        public Object invoke(Object proxy, Method method, Object[] args) throws IllegalAccessException {
            StringBuilder call = new StringBuilder(method.getName());
            for (Object arg : args) {
                call.append(' ').append(describe(arg));
            }
            if (heard != null) {
                heard.accept(call.toString());
            } else {
                calls.add(call.toString());
                count.incrementAndGet();
            }
            return null;
        }
    }

    /**
     * A listener of every kind that hands each call to heard, or without one keeps it for next().
     * The reversed one lists its interfaces in the other order: a class of its own that shares
     * only the methods.
     */
    public static Object listener(boolean reversed, Consumer<String> heard) {
        List<Class<?>> kinds = Arrays.asList(InterAppChangeListener.class, DLNADeviceChangeListener.class,
            DataSendListener.class, ReceiveListener.class, FileSendListener.class, FileCopyListener.class);
        if (reversed) {
            Collections.reverse(kinds);
        }
        return Proxy.newProxyInstance(Probe.class.getClassLoader(), kinds.toArray(new Class<?>[0]),
                                      new Recorder(heard));
    }

    /** The oldest call to the listener not taken yet, waiting up to 20 s; "(none)" if none came. */
    public static String next(Object listener) throws InterruptedException {
        String call = ((Recorder) Proxy.getInvocationHandler(listener)).calls.poll(20, TimeUnit.SECONDS);
        return call == null ? "(none)" : call;
    }

    /** Calls to the listener so far, taken or not. */
    public static int count(Object listener) {
        return ((Recorder) Proxy.getInvocationHandler(listener)).count.get();
    }

    /** Every value of a record, an event or an array of them, in one line. */
    public static String describe(Object value) throws IllegalAccessException {
        if (value == null) {
            return "null";
        }
        if (value instanceof Object[]) {
            StringJoiner text = new StringJoiner(", ", "[", "]");
            for (Object element : (Object[]) value) {
                text.add(describe(element));
            }
            return text.toString();
        }
        if (value instanceof byte[]) {
            return "\"" + new String((byte[]) value, StandardCharsets.ISO_8859_1) + "\"";  // a char for each byte
        }
        int kind = RECORDS.indexOf(value.getClass());
        if (kind < 0) {
            return String.valueOf(value);
        }
        // The record's texts and numbers in the order its class declares them.
        StringJoiner text = new StringJoiner(",", KINDS[kind] + "{", "}");
        for (Field field : value.getClass().getDeclaredFields()) {
            if (field.getType().isPrimitive() || field.getType() == String.class) {
                field.setAccessible(true);
                text.add(String.valueOf(field.get(value)));
            }
        }
        return text.toString();
    }

    private static final List<Class<?>> RECORDS = Arrays.asList(PELKAgentNativeLib.InteractionApp.class,
        DLNADevice.class, FileInfo.class, ReceiveOption.class, PELKAgentNativeLib.DataTransferEvent.class,
        PELKAgentNativeLib.FileTransferEvent.class);
    private static final String[] KINDS = {"app", "device", "file", "option", "data", "fileEvent"};

    private static final Pattern GLOBAL_REFS = Pattern.compile("JNI global refs: (\\d+)");

    /**
     * The VM's own count of JNI global references, from its thread dump, once two reads 20 ms apart
     * agree: the first read loads the management classes, and the VM's own threads take and drop
     * references at times.
     */
    public static int globalRefs() throws Exception {
        int last = readGlobalRefs();
        for (int tries = 0; tries < 100; ++tries) {
            Thread.sleep(20);
            int now = readGlobalRefs();
            if (now == last) {
                return now;
            }
            last = now;
        }
        return last;
    }

    private static int readGlobalRefs() throws Exception {
        String dump = (String) ManagementFactory.getPlatformMBeanServer().invoke(
            new ObjectName("com.sun.management:type=DiagnosticCommand"), "threadPrint",
            new Object[] {new String[0]}, new String[] {String[].class.getName()});
        Matcher matcher = GLOBAL_REFS.matcher(dump);
        if (!matcher.find()) {
            throw new IllegalStateException("no global reference count in the thread dump");
        }
        return Integer.parseInt(matcher.group(1));
    }

    /** Threads the VM knows, attached native threads included. */
    public static int liveThreads() {
        return ManagementFactory.getThreadMXBean().getThreadCount();
    }

    public static int daemonThreads() {
        return ManagementFactory.getThreadMXBean().getDaemonThreadCount();
    }
}
