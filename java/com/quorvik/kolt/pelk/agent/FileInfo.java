package com.quorvik.kolt.pelk.agent;

/** A content item or directory of a media server. The library reads it through its getters. */
public class FileInfo {
    private String sourceDMSUDN;
    private String objectParentID;
    private String objectID;
    private String objectTitle;
    private String objectType;
    private String objectURI;

    public FileInfo() {}

    public FileInfo(String sourceDMSUDN, String objectParentID, String objectID, String objectTitle,
                    String objectType, String objectURI) {
        this.sourceDMSUDN = sourceDMSUDN;
        this.objectParentID = objectParentID;
        this.objectID = objectID;
        this.objectTitle = objectTitle;
        this.objectType = objectType;
        this.objectURI = objectURI;
    }

    public FileInfo(FileInfo other) {
        this(other.sourceDMSUDN, other.objectParentID, other.objectID, other.objectTitle, other.objectType,
             other.objectURI);
    }

    /** The UDN of the media server that holds the item. */
    public String getSourceDMSUDN() {
        return sourceDMSUDN;
    }

    public String getObjectParentID() {
        return objectParentID;
    }

    public String getObjectID() {
        return objectID;
    }

    public String getObjectTitle() {
        return objectTitle;
    }

    public String getObjectType() {
        return objectType;
    }

    public String getObjectURI() {
        return objectURI;
    }
}
