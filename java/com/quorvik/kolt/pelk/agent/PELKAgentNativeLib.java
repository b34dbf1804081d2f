package com.quorvik.kolt.pelk.agent;

/**
 * The app's way into libPELKAgent: registration, app discovery, data and file transfer, and the
 * DLNA media functions, each one request to the on-device service. Loading this class loads the
 * library.
 *
 * <p>Results are 0 for success and a code otherwise, unless a method says more. Listeners are
 * called on the library's own thread, one event at a time; a listener that blocks delays all later
 * events. That thread is attached to the VM once, as a daemon thread, so the events of one
 * connection come on one {@link Thread} object (the notice of a reconnection, change type 4, on a
 * thread of its own). The listener parameters accept any object that has the method named by the
 * listener interface of this package (for example {@link InterAppChangeListener}).
 */
public final class PELKAgentNativeLib {
    static {
        System.loadLibrary("PELKAgent");
    }

    private PELKAgentNativeLib() {}

    /** An application instance that takes part in interaction, on this or another device. */
    public static class InteractionApp {
        public String szAppName;
        public int nAppID;
        public int nType;
        public String szIPv4;
        public String szMacAddress;
        public boolean fLocalDevice;
    }

    /** The outcome of a data send. */
    public static class DataTransferEvent {
        public long nId;
        public long nEventType;
        public int nRemoteAppID;
        public String strIPAddress;
    }

    /** Progress or end of a file send, receive or copy. */
    public static class FileTransferEvent {
        public long ullCurrentSize;
        public long ullTotalSize;
        public long ullListTotalSize;
        public long nId;
        public long nCurrentCount;
        public long nTotalCount;
        public long nEventType;
        public String strFileName;
        public String strOtherSideIP;
        public int nRemoteAppID;
    }

    /**
     * Registers this app under a name and number. appListener hears of other apps and of this
     * app's link to the service (see {@link InterAppChangeListener}); deviceListener, which may be
     * null, hears of media devices. Returns 0, -1 when appName or appListener cannot be used, 1001
     * when deviceListener cannot be used, or the agent's code.
     */
    public static native int registerApp(String appName, int appID, Object appListener, Object deviceListener);

    public static native int unRegisterApp();

    /** The ID that the service gave this app; below 1 while not registered. */
    public static native int getAppID();

    /** Asks the service for the interaction apps; null on failure. */
    public static native InteractionApp[] searchInteractionApp();

    /** The interaction apps that the service has announced so far; null on failure. */
    public static native InteractionApp[] getInteractionAppList();

    public static native int refreshInteractionApp(boolean refresh);

    /** Sends length bytes of data over TCP to (ip, appID) and waits for the outcome. */
    public static native int sendData(byte[] data, int length, String ip, int appID, boolean flag, int timeOut);

    /**
     * Sends over TCP without waiting; the outcome goes to the first sendListener ever given to
     * this method or to sendUDPData (see {@link DataSendListener}).
     */
    public static native int asynSendData(byte[] data, int length, String ip, int appID, boolean flag,
                                          Object sendListener);

    /** As asynSendData, over UDP. */
    public static native int sendUDPData(byte[] data, int length, String ip, int appID, boolean flag,
                                         Object sendListener);

    public static native int sendUDPDataAll(byte[] data, int length, boolean flag);

    public static native int broadcast(byte[] data, int length, String ip, boolean flag);

    /**
     * Sends a file; progress goes to the first fileListener ever given to this method (see
     * {@link FileSendListener}). Returns the transfer ID, the negated code on failure, or 0 when
     * path or ip cannot be used.
     */
    public static native int sendFile(String path, String ip, Object fileListener, int appID, boolean flag,
                                      int value);

    /** As sendFile, for several files in one transfer, with a first listener of its own. */
    public static native int sendFileList(String[] paths, String ip, Object fileListener, int appID,
                                          boolean flag, int value);

    public static native int pauseSend(int id);

    public static native int resumeSend(int id);

    public static native int cancelSend(int id);

    public static native int cancelReceive(int id);

    public static native int deleteSendFileCallback(int id);

    /**
     * Stores incoming files in folder; incoming data and files are told to receiveListener (see
     * {@link ReceiveListener}), the first one ever given.
     */
    public static native int setReceiveOption(String folder, Object receiveListener);

    /** Sends the option as it is; incoming data and files are then no longer reported. */
    public static native int setReceiveOptionX(ReceiveOption option, Object receiveListener);

    /** Writes the option in force into target. */
    public static native int getReceiveOption(ReceiveOption target);

    public static native int startDMS();

    public static native int stopDMS();

    public static native int rescanShareFolder();

    public static native int setMyDMSName(String name);

    /** kind 0 media servers, 1 renderers, anything else both. */
    public static native int rescanNetwork(int kind);

    public static native int stopCopyTransfer(int taskID);

    /** The media servers found; null on failure or when there is none. */
    public static native DLNADevice[] searchDMS();

    /** The renderers found; null on failure or when there is none. */
    public static native DLNADevice[] searchDMR();

    /** The items at the root of server; null on failure or when there is none. */
    public static native FileInfo[] getRootFileList(DLNADevice server);

    public static native FileInfo[] getFileList(DLNADevice server, FileInfo folder);

    public static native FileInfo[] getParentFileList(DLNADevice server, FileInfo item);

    /** Writes the directory that holds item into parentOut. */
    public static native int getParentDirectoryInfo(FileInfo item, FileInfo parentOut);

    /**
     * Copies files from server to this device. The progress of every copy goes to the latest
     * copyListener (see {@link FileCopyListener}). Returns the task ID or the agent's code.
     */
    public static native int downLoad(DLNADevice server, FileInfo[] files, Object copyListener);

    /** Copies files from source into targetFolder on target; returns as downLoad. */
    public static native int upLoad(DLNADevice source, DLNADevice target, FileInfo[] files, FileInfo targetFolder,
                                    Object copyListener);

    public static native int playSelectedFile(int index, DLNADevice server, FileInfo[] files, DLNADevice renderer);

    public static native int stopCurPlayingFile(DLNADevice renderer);

    public static native int pauseCurPlayingFile(DLNADevice renderer);

    public static native int resumeCurPlayingFile(DLNADevice renderer);

    public static native int enableContentListCache(DLNADevice server);

    public static native int disableContentListCache(DLNADevice server);
}
