// What the failing call at story.k of story.good can lead to: each of these appends what follows upon it to
// story.lines, whose last line is the call as it failed.
#pragma once

#include "sweep/story.h"

#include <string>

namespace sweep
{
// Going on

void Say(Story &story, const std::string &text); // on standard output
void Append(Story &story, const Lines &lines, size_t from, size_t to);
// Nobody looks at the call, and without its work nothing is missing.
void GoOn(Story &story);
// The rest of the good run, from a line that begins so.
void GoOnFrom(Story &story, const std::string &start);
void GoOnWithout(Story &story, const std::function<bool(const std::string &line)> &without);
// Adds to the number between before and behind, in the first line that has both.
void Count(Lines &lines, const std::string &before, int step, const std::string &behind);

// Ending, with exit status 1 unless memory is missing

bool IsAbandoned(const Lines &lines); // the snapshots are, and all is read live
void EndWith(Story &story, const std::string &errorText);
void DieOf(Story &story, const std::string &message);
void DieAfterWords(Story &story, const std::string &words, const std::string &message);
Tell Fatal(const std::string &message);
Tell FatalStatus(const std::string &message);   // with the status that the last line has
Tell RefusedMemory(const std::string &message); // of a hash or a key whose size could not be had
void OutOfMemory(Story &story);

// Reading images

size_t LastRead(const Story &story); // the place of the latest read of a file or disk
std::string PurposeOfRead(const Lines &lines, size_t place);
// The handle by which the image in front of that one in its chain was opened; empty for the first.
std::string ParentOf(const Story &story, const std::string &handle);
void PasswordPart(Story &story);
void MissingImage(Story &story);
void MissingBase(Story &story);
void WayBack(Story &story);
void WrongImageId(Story &story);
void WrongFetchedDigest(Story &story);
void WrongVerifiedDigest(Story &story);
void WrongVerifiedTag(Story &story);
void WrongRestoredDigest(Story &story);
void WrongRestoredTag(Story &story);

// Writing images, and disks

void WrongCapturedDigest(Story &story);
// Nobody looks at the call, and the file is no image, or one that does not match; a capture does not hear of it, and
// the closing verify of a consolidation ends with that message.
Tell SpoiledImage(const std::string &message);
void SpoiledHeader(Story &story);
void UnopenedTarget(Story &story);
void UnlistedDisk(Story &story);
void UnknownSystemDisk(Story &story);

// The tracker, and snapshots: chunk 0 is volume 1, chunk 1 is volume 2

void WithoutTracker(Story &story);
void UncommittedEpoch(Story &story);
void WithoutExitHook(Story &story);
Tell Abandoning(const std::string &label);
Tell AbandonAfterTheWait(const std::string &operation);
void WithoutVolumes(Story &story);
void UnfoundVolume(Story &story);
Tell UnopenedVolume(int volume);
Tell UnlocatedVolume(int volume);
Tell UnsupportedVolume(int volume);
Tell UnaddedVolume(int volume);
Tell WithoutProperties(int volume);
Tell WithoutShadowDevice(int volume);
void WithoutWriters(Story &story);
void WithoutFirstWriter(Story &story);
void WithoutSecondWriter(Story &story);
// An operation that decides nothing went wrong; the run goes on with the line that begins so.
Tell ToldWait(const std::string &next);
void AbortedBackup(Story &story);
void UndeletedSnapshots(Story &story);
} // namespace sweep
