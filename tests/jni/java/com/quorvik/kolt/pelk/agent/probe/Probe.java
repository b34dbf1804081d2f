package com.quorvik.kolt.pelk.agent.probe;

import com.quorvik.kolt.pelk.agent.DLNADevice;
import com.quorvik.kolt.pelk.agent.FileInfo;
import com.quorvik.kolt.pelk.agent.PELKAgentNativeLib;
import com.quorvik.kolt.pelk.agent.ReceiveOption;
import java.lang.management.ManagementFactory;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import javax.management.ObjectName;

/** The bridge tests' hands in the VM: calls the native methods from Java and shows their results. */
public final class Probe {
    private Probe() {}

    /** Calls the native method of this name as an app would (primitives boxed). */
    public static Object call(String name, Object[] args) throws Throwable {
        for (Method method : PELKAgentNativeLib.class.getDeclaredMethods()) {
            if (method.getName().equals(name) && Modifier.isNative(method.getModifiers())) {
                try {
                    return method.invoke(null, args);
                } catch (InvocationTargetException e) {
                    throw e.getCause();
                }
            }
        }
        throw new NoSuchMethodException(name);
    }

    /** Every value of a record, an event or an array of them, in one line. */
    public static String describe(Object value) {
        if (value == null) {
            return "null";
        }
        if (value instanceof Object[]) {
            StringBuilder text = new StringBuilder("[");
            for (Object element : (Object[]) value) {
                text.append(text.length() > 1 ? ", " : "").append(describe(element));
            }
            return text.append("]").toString();
        }
        if (value instanceof byte[]) {
            StringBuilder text = new StringBuilder("\"");
            for (byte b : (byte[]) value) {
                text.append(b >= 0x20 && b < 0x7f ? String.valueOf((char) b) : String.format("\\x%02x", b & 0xff));
            }
            return text.append("\"").toString();
        }
        if (value instanceof PELKAgentNativeLib.InteractionApp) {
            PELKAgentNativeLib.InteractionApp a = (PELKAgentNativeLib.InteractionApp) value;
            return join("app", a.szAppName, a.nAppID, a.nType, a.szIPv4, a.szMacAddress, a.fLocalDevice);
        }
        if (value instanceof DLNADevice) {
            DLNADevice d = (DLNADevice) value;
            return join("device", d.getName(), d.getType(), d.getUUID(), d.getIPv4(), d.isLocalDevice());
        }
        if (value instanceof FileInfo) {
            FileInfo f = (FileInfo) value;
            return join("file", f.getSourceDMSUDN(), f.getObjectParentID(), f.getObjectID(), f.getObjectTitle(),
                        f.getObjectType(), f.getObjectURI());
        }
        if (value instanceof ReceiveOption) {
            ReceiveOption o = (ReceiveOption) value;
            return join("option", o.getDirectory(), o.isRename(), o.getPercent());
        }
        if (value instanceof PELKAgentNativeLib.DataTransferEvent) {
            PELKAgentNativeLib.DataTransferEvent e = (PELKAgentNativeLib.DataTransferEvent) value;
            return join("data", e.nId, e.nEventType, e.nRemoteAppID, e.strIPAddress);
        }
        if (value instanceof PELKAgentNativeLib.FileTransferEvent) {
            PELKAgentNativeLib.FileTransferEvent e = (PELKAgentNativeLib.FileTransferEvent) value;
            return join("fileEvent", e.ullCurrentSize, e.ullTotalSize, e.ullListTotalSize, e.nId, e.nCurrentCount,
                        e.nTotalCount, e.nEventType, e.strFileName, e.strOtherSideIP, e.nRemoteAppID);
        }
        return String.valueOf(value);
    }

    private static String join(String kind, Object... values) {
        StringBuilder text = new StringBuilder(kind).append("{");
        for (int i = 0; i < values.length; ++i) {
            text.append(i > 0 ? "," : "").append(values[i]);
        }
        return text.append("}").toString();
    }

    private static final Pattern GLOBAL_REFS = Pattern.compile("JNI global refs: (\\d+)");

    /** The VM's own count of JNI global references, from its thread dump. */
    public static int globalRefs() throws Exception {
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
