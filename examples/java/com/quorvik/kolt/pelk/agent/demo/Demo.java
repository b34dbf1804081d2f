package com.quorvik.kolt.pelk.agent.demo;

import com.quorvik.kolt.pelk.agent.DLNADevice;
import com.quorvik.kolt.pelk.agent.FileCopyListener;
import com.quorvik.kolt.pelk.agent.FileInfo;
import com.quorvik.kolt.pelk.agent.FileSendListener;
import com.quorvik.kolt.pelk.agent.InterAppChangeListener;
import com.quorvik.kolt.pelk.agent.PELKAgentNativeLib;
import com.quorvik.kolt.pelk.agent.PELKAgentNativeLib.FileTransferEvent;
import com.quorvik.kolt.pelk.agent.PELKAgentNativeLib.InteractionApp;
import com.quorvik.kolt.pelk.agent.ReceiveListener;

import java.nio.charset.StandardCharsets;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.TimeUnit;

/**
 * An app on the Java side of the library: registers as "bob", finds the app "alice", sends her a
 * text and a file with progress, then browses the first media server for a folder and downloads an
 * item of it. Prints what it does and exits 0 only when every step succeeded.
 *
 * <pre>java -Djava.library.path=DIR -cp PELKAgent.jar:demo.jar com.quorvik.kolt.pelk.agent.demo.Demo
 *     PEER FILE FOLDER ITEM DOWNLOAD_DIR</pre>
 */
public final class Demo {
    // File event types as pelk-emulator reports them: the ends of a transfer.
    private static final long LIST_DONE = 3;
    private static final long CANCELLED = 6;
    private static final long FAILED = 7;
    private static final int WAIT_SECONDS = 60;

    private Demo() {}

    /** Collects the file events of one transfer and prints its progress in tenths. */
    private static final class Progress implements FileSendListener, FileCopyListener {
        private final BlockingQueue<FileTransferEvent> ends = new ArrayBlockingQueue<>(1);
        private final String label;
        private long shownTenth = -1;

        Progress(String label) {
            this.label = label;
        }

        @Override
        public void onSendingFile(FileTransferEvent event) {
            take(event);
        }

        @Override
        public void onDLNAFileCopy(FileTransferEvent event) {
            take(event);
        }

        private void take(FileTransferEvent event) {
            long total = Math.max(1, event.ullListTotalSize);
            long tenth = Math.min(10, event.ullCurrentSize * 10 / total);
            if (tenth > shownTenth) {
                shownTenth = tenth;
                System.out.printf("  %s %3d%%  %d/%d bytes%n", label, tenth * 10, event.ullCurrentSize,
                        event.ullListTotalSize);
            }
            if (event.nEventType == LIST_DONE || event.nEventType == CANCELLED || event.nEventType == FAILED) {
                ends.offer(event);
            }
        }

        FileTransferEvent awaitEnd() throws InterruptedException {
            return ends.poll(WAIT_SECONDS, TimeUnit.SECONDS);
        }
    }

    private static final class Quiet implements InterAppChangeListener, ReceiveListener {
        @Override
        public void onInterAppChange(InteractionApp app, int changeType) {
            if (changeType == 3 || changeType == 4) {
                System.out.println(changeType == 3 ? "lost the service" : "registered again");
            }
        }

        @Override
        public void onReceivingData(int type, byte[] data, int length, InteractionApp sender) {}

        @Override
        public void onReceivingFile(FileTransferEvent event) {}
    }

    private static void check(boolean ok, String what) {
        if (!ok) {
            System.err.println("demo: " + what);
            PELKAgentNativeLib.unRegisterApp();
            System.exit(1);
        }
    }

    private static InteractionApp findApp(String name) throws InterruptedException {
        for (int attempt = 0; attempt < 50; ++attempt) {
            InteractionApp[] apps = PELKAgentNativeLib.searchInteractionApp();
            for (InteractionApp app : apps == null ? new InteractionApp[0] : apps) {
                if (name.equals(app.szAppName)) {
                    return app;
                }
            }
            Thread.sleep(100);
        }
        return null;
    }

    private static FileInfo findItem(FileInfo[] items, String title) {
        for (FileInfo item : items == null ? new FileInfo[0] : items) {
            if (title.equals(item.getObjectTitle())) {
                return item;
            }
        }
        return null;
    }

    public static void main(String[] args) throws InterruptedException {
        if (args.length != 5) {
            System.err.println("usage: Demo PEER FILE FOLDER ITEM DOWNLOAD_DIR");
            System.exit(2);
        }
        String peerName = args[0];
        Quiet quiet = new Quiet();

        int result = PELKAgentNativeLib.registerApp("bob", 7, quiet, null);
        check(result == 0, "registerApp gave " + result);
        System.out.println("registered as \"bob\", app ID " + PELKAgentNativeLib.getAppID());

        InteractionApp peer = findApp(peerName);
        check(peer != null, "no app \"" + peerName + "\" found");
        System.out.printf("found \"%s\" at %s:%d%n", peer.szAppName, peer.szIPv4, peer.nAppID);

        byte[] text = "hello from java".getBytes(StandardCharsets.UTF_8);
        result = PELKAgentNativeLib.sendData(text, text.length, peer.szIPv4, peer.nAppID, false, 40);
        check(result == 0, "sendData gave " + result);
        System.out.println("sent " + text.length + " bytes");

        Progress sending = new Progress("send");
        int transfer = PELKAgentNativeLib.sendFile(args[1], peer.szIPv4, sending, peer.nAppID, false, 0);
        check(transfer > 0, "sendFile gave " + transfer);
        FileTransferEvent end = sending.awaitEnd();
        check(end != null && end.nEventType == LIST_DONE, "file transfer " + transfer + " did not complete");
        System.out.println("sent " + args[1] + ", " + end.ullListTotalSize + " bytes (transfer " + transfer + ")");

        DLNADevice[] servers = PELKAgentNativeLib.searchDMS();
        check(servers != null && servers.length > 0, "no media server");
        DLNADevice server = servers[0];
        FileInfo folder = findItem(PELKAgentNativeLib.getRootFileList(server), args[2]);
        check(folder != null, "no folder \"" + args[2] + "\" at the root of the media server");
        FileInfo item = findItem(PELKAgentNativeLib.getFileList(server, folder), args[3]);
        check(item != null, "no item \"" + args[3] + "\" in " + args[2]);
        System.out.println("browsed " + args[2] + ": found " + item.getObjectTitle());

        result = PELKAgentNativeLib.setReceiveOption(args[4], quiet);
        check(result == 0, "setReceiveOption gave " + result);
        Progress copying = new Progress("download");
        int task = PELKAgentNativeLib.downLoad(server, new FileInfo[] {item}, copying);
        check(task > 0, "downLoad gave " + task);
        end = copying.awaitEnd();
        check(end != null && end.nEventType == LIST_DONE, "download " + task + " did not complete");
        System.out.println("downloaded " + item.getObjectTitle() + ", " + end.ullListTotalSize + " bytes");

        result = PELKAgentNativeLib.unRegisterApp();
        check(result == 0, "unRegisterApp gave " + result);
        System.out.println("demo: done");
    }
}
