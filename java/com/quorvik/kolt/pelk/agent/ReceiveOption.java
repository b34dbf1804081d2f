package com.quorvik.kolt.pelk.agent;

/** How incoming files are stored. The library reads it through its getters. */
public class ReceiveOption {
    private String directory;
    private boolean rename;
    private int percent;

    public ReceiveOption() {}

    public ReceiveOption(String directory, boolean rename, int percent) {
        this.directory = directory;
        this.rename = rename;
        this.percent = percent;
    }

    public ReceiveOption(ReceiveOption other) {
        this(other.directory, other.rename, other.percent);
    }

    /** The folder that incoming files go to (at most 259 bytes reach the service). */
    public String getDirectory() {
        return directory;
    }

    public boolean isRename() {
        return rename;
    }

    public int getPercent() {
        return percent;
    }
}
