// Colours first, for daylight, the dark and paper; then each part of the page in the order in which it stands there.
//
// Blue is what is stored, orange what changed, red what is wrong; each has a shape or a place of its own as well.
#include "kestrix-keep/status_page.h"

const char statusPageStyle[] = R"css(
:root {
  color-scheme: light dark;
  --page: #f6f5f1; --card: #ffffff; --line: #d9d6cd; --lane: #efede6; --ink: #1b2530; --quiet: #56616d;
  --good: #1d6b45; --good-back: #e6f3eb; --bad: #a3152e; --bad-back: #fcebed;
  --s1: #c3d9ee; --s2: #8db6de; --s3: #4f8bc6; --s4: #1f5a99;
  --c1: #f4c08f; --c2: #e8913f; --c3: #cc6410; --c4: #8f3d00;
}
@media screen and (prefers-color-scheme: dark) {
  :root {
    --page: #12161b; --card: #1a2027; --line: #343d47; --lane: #232b33; --ink: #e4e8ec; --quiet: #a0abb6;
    --good: #6fd09c; --good-back: #16291f; --bad: #ff8c9b; --bad-back: #33181d;
    --s1: #24425f; --s2: #2f659a; --s3: #5090cf; --s4: #93c4f2;
    --c1: #5f3a17; --c2: #a2591a; --c3: #e38330; --c4: #ffbd80;
  }
}
* { box-sizing: border-box; }
html { background: var(--page); color: var(--ink); -webkit-text-size-adjust: 100%; text-size-adjust: 100%; }
body {
  margin: 0 auto; max-width: 76rem; padding: 1.5rem clamp(0.75rem, 3vw, 2rem) 3rem; overflow-wrap: anywhere;
  font: 1rem/1.5 system-ui, "Segoe UI", "Liberation Sans", "DejaVu Sans", sans-serif; font-variant-numeric: tabular-nums;
}
h1, h2, h3 { line-height: 1.2; margin: 0; font-weight: 650; }
h1 { font-size: 1.6rem; }
h2 { font-size: 1.3rem; }
h3 { font-size: 1.02rem; margin: 2rem 0 0.35rem; }
p, ul, ol, dl, dd { margin: 0; padding: 0; }
a { color: inherit; text-underline-offset: 0.15em; }
svg { display: block; width: 100%; overflow: hidden; }
.quiet, .made { color: var(--quiet); }
.quiet { font-size: 0.875rem; max-width: 50rem; }
.made { margin: 0.25rem 0 1.1rem; font-size: 0.9rem; }
.hidden { position: absolute; width: 1px; height: 1px; overflow: hidden; clip-path: inset(50%); white-space: nowrap; }

.verdict {
  border: 1px solid; border-left-width: 0.45rem; border-radius: 0.5rem; padding: 0.9rem 1.1rem; margin: 0 0 1.25rem;
}
.verdict strong { font-size: 1.15rem; }
.verdict ul { list-style: none; }
.verdict > ul > li { margin-top: 0.6rem; color: var(--ink); }
.verdict > ul > li > a { font-weight: 650; }
.verdict ul ul { list-style: disc; padding-left: 1.25rem; }
.verdict, .tag { color: var(--good); background: var(--good-back); border-color: currentColor; }
.bad.verdict, .bad.tag { color: var(--bad); background: var(--bad-back); }

.job {
  background: var(--card); border: 1px solid var(--line); border-radius: 0.75rem; margin: 0 0 1.25rem;
  padding: clamp(0.9rem, 2.5vw, 1.6rem);
}
.job > header { display: flex; flex-wrap: wrap; align-items: baseline; gap: 0.35rem 0.8rem; }
.tag { border: 1px solid; border-radius: 1rem; padding: 0 0.65rem; font-size: 0.85rem; font-weight: 600; }
.folder { flex-basis: 100%; color: var(--quiet); font-size: 0.875rem; }
.wrong { margin-top: 0.9rem; color: var(--bad); }
.wrong ul { padding-left: 1.25rem; margin-top: 0.3rem; }

.facts { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(19rem, 100%), 1fr)); gap: 0.9rem 2rem; }
.facts { margin-top: 1.1rem; }
.facts dt { color: var(--quiet); font-size: 0.8rem; }
.facts .more { color: var(--quiet); font-size: 0.875rem; display: block; }
.room { height: 0.55rem; margin: 0.35rem 0 0.25rem; border-radius: 0.3rem; background: var(--lane); }
.room path { fill: var(--s3); }

.legend { display: flex; flex-wrap: wrap; gap: 0.25rem 1.2rem; list-style: none; font-size: 0.8rem; margin: 0.5rem 0; }
.legend li { display: flex; align-items: center; gap: 0.4rem; }
.legend svg { width: 3.2rem; height: 0.75rem; flex: none; }
.one.legend svg { width: 1.2rem; }
.legend .box { flex: none; padding: 0 0.35rem; }

.chain { display: flex; flex-direction: column; align-items: flex-start; margin-top: 0.9rem; max-width: 100%; }
.box {
  display: block; text-align: center; text-decoration: none; border: 1px solid var(--s3); border-radius: 0.25rem;
  background: var(--card); color: var(--ink); font-size: 0.72rem; line-height: 1.35rem; height: 1.5rem; padding: 0;
  white-space: nowrap;
}
.base.box {
  background: var(--s1); border: 2px solid var(--s4); border-radius: 0.35rem; padding: 0.15rem 0.7rem; font-size: 0.85rem;
  height: auto; white-space: normal; text-align: left;
}
.again.base.box { background: none; border-style: dashed; border-width: 1px; }
li > .bad.box, li > .gone.box, li > .last.box { line-height: 1.2rem; }
.last.box { border: 2px solid var(--good); font-weight: 700; }
.bad.box, .bad.base.box { border: 2px dashed var(--bad); color: var(--bad); background: var(--bad-back); }
.gone.box, .gone.base.box { border: 2px dotted var(--bad); color: var(--bad); background: none; text-decoration: line-through; }
a.box:hover, a.box:focus { outline: 2px solid var(--ink); outline-offset: 1px; }
.on, .row { list-style: none; display: flex; flex-wrap: wrap; max-width: 100%; }
.on { margin-left: 1.2rem; border-left: 2px solid var(--s4); }
.on > li { border-top: 2px solid var(--s4); margin-top: 0.5rem; padding: 0 0.15rem; width: 3.7rem; }
.on > li::before { content: ""; display: block; height: 0.4rem; width: 2px; margin: 0 auto; background: var(--s4); }
.row { margin: 0.5rem 0 0; padding-left: 1.2rem; row-gap: 0.35rem; }
.row > li { display: flex; width: 4.6rem; align-items: center; }
.row > li::before { content: "\2190" / ""; color: var(--s4); width: 0.95rem; flex: none; text-align: center; }
.row > li:first-child::before { content: "\2191" / ""; }
.row > li > .box { flex: 1; }

.plot { display: grid; grid-template-columns: 5.2rem minmax(0, 1fr); gap: 0 0.6rem; margin-top: 0.6rem; }
.plot svg { height: 8.5rem; }
.scale { display: flex; flex-direction: column; justify-content: space-between; text-align: right; }
.scale, .ends { font-size: 0.75rem; line-height: 1rem; color: var(--quiet); }
.ends { display: flex; justify-content: space-between; gap: 0.5rem; grid-column: 2; }
.grid { stroke: var(--line); stroke-width: 1; vector-effect: non-scaling-stroke; }
.size { fill: var(--s3); }
.store { fill: var(--s2); }
.change { fill: var(--c3); }
.full { fill: none; stroke: var(--quiet); stroke-width: 1; stroke-dasharray: 3 2; vector-effect: non-scaling-stroke; }
.mark { fill: var(--bad); }

.strips { list-style: none; margin-top: 0.4rem; }
.strips > li { display: grid; grid-template-columns: 5.2rem minmax(0, 1fr); gap: 0 0.6rem; align-items: center; }
.strips > li { font-size: 0.75rem; line-height: 1rem; padding: 1px 0; }
.strips .day { text-align: right; color: var(--quiet); white-space: nowrap; }
.strips .bad.day { color: var(--bad); font-weight: 700; white-space: normal; }
.strips svg { height: 0.85rem; background: var(--lane); }
.dense.strips > li { font-size: 0.62rem; line-height: 0.66rem; padding: 0 0 1px; }
.dense.strips svg { height: 0.6rem; }
.strips > .first { margin-top: 0.5rem; }
.strips .says { color: var(--bad); grid-column: 2; }
.scaleline { margin: 0.3rem 0 0 5.8rem; }
.s1 { stroke: var(--s1); } .s2 { stroke: var(--s2); } .s3 { stroke: var(--s3); } .s4 { stroke: var(--s4); }
.c1 { stroke: var(--c1); } .c2 { stroke: var(--c2); } .c3 { stroke: var(--c3); } .c4 { stroke: var(--c4); }
.s1, .s2, .s3, .s4 { stroke-width: 6; fill: none; }
.c1, .c2, .c3, .c4 { stroke-width: 4; fill: none; }

details { margin-top: 2rem; }
details.wrong { margin-top: 0.9rem; }
summary { font-size: 1.02rem; font-weight: 650; cursor: pointer; }
table { border-collapse: collapse; width: 100%; font-size: 0.82rem; margin-top: 0.6rem; }
th, td { text-align: left; vertical-align: top; padding: 0.25rem 0.6rem 0.25rem 0; border-top: 1px solid var(--line); }
thead th { border-top: 0; color: var(--quiet); font-weight: 600; }
tbody th { font-weight: 400; }
.number { text-align: right; white-space: nowrap; }
td.bad { color: var(--bad); }
tr:target { background: var(--s1); }
footer { color: var(--quiet); font-size: 0.85rem; }

@media (max-width: 52rem) {
  thead { display: none; }
  table, tbody { display: block; }
  tr { display: block; border-top: 1px solid var(--line); padding: 0.35rem 0; }
  th, td { display: inline; border: 0; padding: 0; white-space: normal; }
  tbody th { display: block; font-weight: 600; }
  td + td::before { content: " \B7\A0" / ""; color: var(--quiet); }
}
@media (max-width: 34rem) {
  .plot, .strips > li { grid-template-columns: 4.8rem minmax(0, 1fr); gap: 0 0.4rem; }
  .scaleline { margin-left: 5.2rem; }
}
@media print {
  @page { margin: 14mm; }
  * { print-color-adjust: exact; -webkit-print-color-adjust: exact; }
  html { background: none; font-size: 11pt; }
  body { max-width: none; padding: 0; }
  .job { border: 0; border-top: 1px solid var(--line); border-radius: 0; padding: 1rem 0 0; }
  h2, h3, summary { break-after: avoid; }
  .verdict > ul > li, .facts > div, .plot, .strips > li, tr, .on > li, .row > li { break-inside: avoid; }
  a { text-decoration: none; }
  details::details-content { content-visibility: visible; block-size: auto; }
}
)css";
