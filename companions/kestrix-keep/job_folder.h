// What lies in the folder of a job: its images with what their sidecars say of them, and what dead runs left.
#pragma once

#include "kestrix-keep/retention.h"
#include "kestrix-keep/sidecar.h"

#include <optional>
#include <string>
#include <vector>

struct KeptImage {
    std::string name; // of the file
    int64_t time = 0; // by the clock when it was begun
    std::optional<Sidecar> sidecar;
    std::string standsOn;     // name of its base by the file itself, where there is no sidecar to tell it
    bool isOpaque = false;    // neither tells
    std::string otherMachine; // that made it; empty: this one did, or a folder of copies does not ask
    bool isThere = false;     // false: there is only a sidecar; its image is gone
    std::string doubt;        // why it can't be counted on; empty: nothing is known against it
    bool isDamaged = false;   // what is doubted is damage
    std::string whyNoBase;    // found in this run: why no image may stand on it, though it be sound
    size_t base = noImage;    // index of what it stands on
    uint32_t chainLength = 0; // images of its chain, itself among them; 0: it is broken
};

struct JobFolder {
    std::string path;
    std::string job;
    JobMemory memory;
    std::vector<KeptImage> images;      // in the order in which they were made; those without a sidecar first
    std::vector<std::string> leftovers; // names that dead runs of this job left
    std::vector<std::string> notes;
};

// What stands in name before the ending; empty: it ends otherwise, or holds nothing else.
std::string WithoutEnding(const std::string &name, const std::string &ending);

// Path of the file that who writes into a folder holds the lock of.
std::string LockPath(const std::string &folder);

// "JOB-20261122T020005Z.kstx"; and the time in such a name of this job's, if it is one.
std::string ImageName(const std::string &job, int64_t time);
std::optional<int64_t> TimeOfImageName(const std::string &job, const std::string &name);

// The name that an image has while it is made: no image's. And what stood before the ending.
std::string NameInTheMaking(const std::string &imageName);

// The name of a file in the making without what tells whose it is: NAME of NAME.1234.unfinished. Empty: it is none.
std::string NameOfUnfinished(const std::string &name);

// What the sidecar's name ends with from the moment on that its image is let go.
extern const char endingOfWhatGoes[];

// Reads the names, the sidecars and the lengths; an image is opened only where no sidecar tells what it stands on. A
// folder that can't be listed, and a memory that can't be read, is a fault.
reader::Result<JobFolder> ReadJobFolder(const std::string &path, const std::string &job);

// Notes against an image what its file, whose facts these are, has otherwise than its sidecar says. Nothing is noted
// against one that has no sidecar or that something is known against.
void NoteDifference(JobFolder &folder, size_t image, const reader::ImageFacts &facts);

// Takes the sidecar of an image of the folder's job, or notes why there is none that counts.
void NoteSidecar(const JobFolder &folder, KeptImage &image, std::optional<reader::Result<Sidecar>> sidecar);

// Notes what stands against an image that is there, by its sidecar and by how long its file is.
void JudgeLength(KeptImage &image, uint64_t fileBytes);

// Brings the folder's images into their order, and notes who stands on whom.
void ArrangeImages(JobFolder &folder);

// Looks at header, table and trailer of the image and of all that it stands on, and notes what is not as the sidecars
// say. Gives the indices of those whose own file was found damaged now, or could not be read.
std::vector<size_t> CheckChainFiles(JobFolder &folder, size_t image);

// Whether its sidecar says that it stands on no other; false without one.
bool IsFull(const KeptImage &image);

// Whether the image is there, made by this job, and nothing is known against it and what it stands on.
bool IsSound(const KeptImage &image);

// Indices of the image and of all that it stands on, as the sidecars have it.
std::vector<size_t> ChainOf(const JobFolder &folder, size_t image);

// When a proof of then was made, at that time now: 0 (never) for one from the future, which proves nothing.
int64_t TimeOfProof(int64_t then, int64_t now);

// When the oldest proof of the files in the image's chain was made; 0: not known.
int64_t FilesProvedAt(const JobFolder &folder, size_t image, int64_t now);

// The images as retention sees them, in the same order.
std::vector<RetainedImage> RetainedImagesOf(const JobFolder &folder);

// The newest image of this machine that nothing is known against; noImage where there is none.
size_t NewestSound(const JobFolder &folder);

std::string PathOf(const JobFolder &folder, const KeptImage &image);

// Notes against an image that it could not be read, which is no verdict on it, and against all that stands on it.
void NoteUnread(JobFolder &folder, size_t image, const std::string &what);

// Notes against an image that it is damaged, and against all that stands on it.
void NoteDamage(JobFolder &folder, size_t image, const std::string &what);
