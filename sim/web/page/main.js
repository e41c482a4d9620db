// Puts the page together: each module looks after its section.
import { Connection } from "./connection.js";
import * as controls from "./controls.js";
import * as extension from "./extension.js";
import * as faults from "./faults.js";
import * as head from "./head.js";
import * as picture from "./picture.js";
import * as plots from "./plots.js";
import * as records from "./records.js";
import * as service from "./service.js";

const connection = new Connection();
for (const part of [service, picture, head, plots, controls, extension, faults, records]) part.begin(connection);
