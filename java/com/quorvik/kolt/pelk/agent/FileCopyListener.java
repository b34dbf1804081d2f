package com.quorvik.kolt.pelk.agent;

/** Hears the progress of copies between media devices (downLoad, upLoad). */
public interface FileCopyListener {
    void onDLNAFileCopy(PELKAgentNativeLib.FileTransferEvent event);
}
