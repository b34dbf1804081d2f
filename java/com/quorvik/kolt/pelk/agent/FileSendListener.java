package com.quorvik.kolt.pelk.agent;

/** Hears the progress of file sends (sendFile, sendFileList). */
public interface FileSendListener {
    void onSendingFile(PELKAgentNativeLib.FileTransferEvent event);
}
