package com.quorvik.kolt.pelk.agent.probe;

import com.quorvik.kolt.pelk.agent.DLNADevice;
import com.quorvik.kolt.pelk.agent.DLNADeviceChangeListener;
import com.quorvik.kolt.pelk.agent.DataSendListener;
import com.quorvik.kolt.pelk.agent.FileCopyListener;
import com.quorvik.kolt.pelk.agent.FileSendListener;
import com.quorvik.kolt.pelk.agent.InterAppChangeListener;
import com.quorvik.kolt.pelk.agent.PELKAgentNativeLib;
import com.quorvik.kolt.pelk.agent.ReceiveListener;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;

/** A listener of every kind that writes down each call, in order, as one line. */
public final class Recorder implements InterAppChangeListener, DLNADeviceChangeListener, DataSendListener,
                                       ReceiveListener, FileSendListener, FileCopyListener {
    private final LinkedBlockingQueue<String> calls = new LinkedBlockingQueue<>();
    private final AtomicInteger count = new AtomicInteger();

    private void record(String call) {
        calls.add(call);
        synchronized (count) {
            count.incrementAndGet();
            count.notifyAll();
        }
    }

    @Override
    public void onInterAppChange(PELKAgentNativeLib.InteractionApp app, int changeType) {
        record("onInterAppChange " + Probe.describe(app) + " " + changeType);
    }

    @Override
    public void onDLNADeviceChange(DLNADevice device, int changeType) {
        record("onDLNADeviceChange " + Probe.describe(device) + " " + changeType);
    }

    @Override
    public void onSendingData(PELKAgentNativeLib.DataTransferEvent event) {
        record("onSendingData " + Probe.describe(event));
    }

    @Override
    public void onReceivingData(int type, byte[] data, int length, PELKAgentNativeLib.InteractionApp sender) {
        record("onReceivingData " + type + " " + Probe.describe(data) + " " + length + " " + Probe.describe(sender));
    }

    @Override
    public void onReceivingFile(PELKAgentNativeLib.FileTransferEvent event) {
        record("onReceivingFile " + Probe.describe(event));
    }

    @Override
    public void onSendingFile(PELKAgentNativeLib.FileTransferEvent event) {
        record("onSendingFile " + Probe.describe(event));
    }

    @Override
    public void onDLNAFileCopy(PELKAgentNativeLib.FileTransferEvent event) {
        record("onDLNAFileCopy " + Probe.describe(event));
    }

    /** The oldest call not taken yet, waiting up to 5 s; "(none)" if none came. */
    public String next() throws InterruptedException {
        String call = calls.poll(5, TimeUnit.SECONDS);
        return call == null ? "(none)" : call;
    }

    /** Calls so far, taken or not. */
    public int count() {
        return count.get();
    }

    /** Waits up to timeoutMs until count() reaches n. */
    public boolean awaitCount(int n, long timeoutMs) throws InterruptedException {
        long deadline = System.currentTimeMillis() + timeoutMs;
        synchronized (count) {
            while (count.get() < n) {
                long left = deadline - System.currentTimeMillis();
                if (left <= 0) {
                    return false;
                }
                count.wait(left);
            }
        }
        return true;
    }
}
