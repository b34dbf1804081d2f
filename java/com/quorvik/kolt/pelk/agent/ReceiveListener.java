package com.quorvik.kolt.pelk.agent;

/** Hears of data and files that other apps send here (setReceiveOption). */
public interface ReceiveListener {
    /** data holds length bytes; sender is the app that sent them. */
    void onReceivingData(int type, byte[] data, int length, PELKAgentNativeLib.InteractionApp sender);

    void onReceivingFile(PELKAgentNativeLib.FileTransferEvent event);
}
